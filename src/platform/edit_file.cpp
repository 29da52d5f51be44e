#include "platform/edit_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <string_view>
#include <thread>

#include "platform/cancellation.h"
#include "platform/descriptor_io.h"
#include "platform/regular_file.h"
#include "platform/replace_file.h"

namespace {

constexpr std::chrono::milliseconds kPause{1};
constexpr int kAttempts = 100;  // for a file that others make, remove or replace meanwhile
constexpr size_t kLongestNamePart = 200;

// "/etc/a.ini" => "/etc/.a~ini.new": of no reader's interest, whatever it takes an INI file to be called.
std::string TempPathOf(const std::string& path) {
  const size_t nameBegin = path.rfind('/') + 1;
  std::string name = path.substr(nameBegin, kLongestNamePart);
  std::ranges::replace(name, '.', '~');
  return path.substr(0, nameBegin) + "." + name + ".new";
}

bool IsRenameImpossible(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == EBUSY || error == EXDEV || error == ENOTSUP;
}

// Writes the text from the offset on and makes it the end of the file. The part behind the old end comes first, since
// it is the one that may find no space; when anything fails the old content is put back.
bool ReplaceFrom(int fd, std::string_view oldContent, size_t offset, std::string_view text) {
  const size_t newSize = offset + text.size();
  const std::string_view inside = text.substr(0, oldContent.size() - offset);
  const std::string_view beyond = text.substr(inside.size());
  const auto at = [](size_t position) { return static_cast<off_t>(position); };
  if (WriteAllAt(fd, beyond, at(oldContent.size())) && WriteAllAt(fd, inside, at(offset)) &&
      (newSize >= oldContent.size() || ::ftruncate(fd, at(newSize)) == 0)) {
    return true;
  }
  WriteAllAt(fd, oldContent.substr(offset), at(offset));
  [[maybe_unused]] const int cut = ::ftruncate(fd, at(oldContent.size()));
  return false;
}

// One attempt at an edit.
class Edit {
 public:
  enum Outcome { kFinished, kAgain };

  Edit(const char* path, mode_t newFileMode, const FileChange& change)
      : m_Path(path), m_NewFileMode(newFileMode), m_Change(change) {}

  FileEdit Result() const { return m_Result; }

  Outcome Try() {
    // Without the lock at first, so that what changes nothing writes nothing.
    if (!Open() || !Change()) return kFinished;
    const std::string place = ResolvePath(m_Path);
    if (place.empty() && !m_File) return Finish(FileEdit::kNotOpened);
    const Way way = WayTo(place);
    if (way != Way::kRename) return way == Way::kAgain ? kAgain : EditInPlace(place, way);
    CTempFile temp(TempPathOf(place));
    const CTempFile::Opening opening = temp.Open();
    if (opening == CTempFile::kNotOpened) {
      if (!m_File) return Finish(FileEdit::kNotOpened);
      return IsRenameImpossible(errno) ? EditInPlace(place, way) : Finish(FileEdit::kFailed);
    }
    if (opening == CTempFile::kNotLocked) return Finish(FileEdit::kFailed);
    const Outcome outcome = EditUnder(temp, place);
    temp.Remove();
    return outcome;
  }

 private:
  enum class Way { kRename, kInPlace, kAgain };

  Outcome Finish(FileEdit result) {
    m_Result = result;
    return kFinished;
  }

  bool Fail(FileEdit result) {
    m_Result = result;
    return false;
  }

  // True also when there is no file yet.
  bool Open() {
    m_File = AboveStandardDescriptors(UniqueFd(::open(m_Path, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)));
    if (!m_File) return errno == ENOENT || Fail(FileEdit::kNotOpened);
    struct stat info {};
    if (::fstat(m_File.Get(), &info) == 0 && S_ISREG(info.st_mode)) return true;
    return Fail(FileEdit::kNotOpened);
  }

  // Whether there is something to write.
  bool Change() {
    m_Old.clear();
    if (m_File && (::lseek(m_File.Get(), 0, SEEK_SET) != 0 || !ReadToEnd(m_File.Get(), m_Old)))
      return Fail(FileEdit::kFailed);
    m_New = m_Old;
    if (!m_Change(m_New, static_cast<bool>(m_File))) return Fail(FileEdit::kRefused);
    m_Result = FileEdit::kDone;
    return m_New != m_Old;
  }

  // How the open file, or the one to be made, may get its new content. Another file at the place was put there since;
  // one without any name that is still found there is being replaced at this moment.
  Way WayTo(const std::string& place) const {
    if (!m_File) return Way::kRename;
    struct stat opened {};
    struct stat named {};
    if (::fstat(m_File.Get(), &opened) != 0) return Way::kAgain;
    if (::lstat(place.c_str(), &named) != 0) return errno == ENOENT ? Way::kInPlace : Way::kAgain;
    if (opened.st_dev != named.st_dev || opened.st_ino != named.st_ino) return Way::kAgain;
    if (opened.st_nlink == 0) return Way::kAgain;
    return opened.st_nlink == 1 ? Way::kRename : Way::kInPlace;
  }

  // The lock of the temporary file is held: the file is looked at anew.
  Outcome EditUnder(const CTempFile& temp, const std::string& place) {
    if (!Open() || !Change()) return kFinished;
    const Way way = WayTo(place);
    if (way != Way::kRename) return way == Way::kAgain ? kAgain : EditInPlace(place, way);
    if (!WriteAllAt(temp.Get(), m_New, 0) || !temp.Sync()) return Finish(FileEdit::kFailed);
    const bool hasAttributes = m_File ? temp.TakeAttributesOf(m_File.Get()) : ::fchmod(temp.Get(), m_NewFileMode) == 0;
    if (!hasAttributes && (!m_File || !IsRenameImpossible(errno))) return Finish(FileEdit::kFailed);
    if (!hasAttributes) return EditInPlace(place, way);
    if (m_File ? !temp.RenameTo(place.c_str()) : !temp.RenameToNew(place.c_str())) {
      if (!m_File && errno == EEXIST) return kAgain;
      return m_File && IsRenameImpossible(errno) ? EditInPlace(place, way) : Finish(FileEdit::kFailed);
    }
    // There is no way back any more; a directory that cannot be brought to the disk now is written later.
    SyncDirectoryOf(place.c_str());
    return Finish(FileEdit::kDone);
  }

  // The file may have been replaced before its lock was taken.
  Outcome EditInPlace(const std::string& place, Way way) {
    if (!m_File) return Finish(FileEdit::kNotOpened);
    if (!LockFile(m_File.Get())) return Finish(FileEdit::kFailed);
    if (WayTo(place) != way) return kAgain;
    if (!Change()) return kFinished;
    const auto same = std::ranges::mismatch(m_Old, m_New).in1 - m_Old.begin();
    const auto offset = static_cast<size_t>(same);
    const bool isDone = ReplaceFrom(m_File.Get(), m_Old, offset, std::string_view(m_New).substr(offset));
    return Finish(isDone ? FileEdit::kDone : FileEdit::kFailed);
  }

  const char* m_Path;
  const mode_t m_NewFileMode;
  const FileChange& m_Change;
  UniqueFd m_File;  // none: to be made
  std::string m_Old;
  std::string m_New;
  FileEdit m_Result = FileEdit::kFailed;
};

}  // namespace

FileEdit EditFile(const char* path, mode_t newFileMode, const FileChange& change) {
  const CancellationBlock block;  // a thread that ended half way would leave a mixture in place
  try {
    Edit edit(path, newFileMode, change);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      if (edit.Try() == Edit::kFinished) return edit.Result();
      std::this_thread::sleep_for(kPause);
    }
  } catch (const std::exception&) {
  }
  return FileEdit::kFailed;
}
