#include "ravctl/report/new_page.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "ravctl/base/error.h"

namespace ravctl {

NewPage::NewPage(const std::string& path)
    : m_Path(path), m_File(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600)) {
  if (!m_File && errno == EEXIST) {
    throw CommandError(ExitCode::kUsage, "the file exists and is not overwritten", path, "choose another name");
  }
  if (!m_File) throw SystemFailure("cannot create the report", path, errno);
}

NewPage::~NewPage() {
  if (!m_IsWhole) ::unlink(m_Path.c_str());
}

void NewPage::Finish() {
  if (::fsync(m_File.Get()) != 0) throw SystemFailure("cannot write the report", m_Path, errno);
  m_IsWhole = true;
}

}  // namespace ravctl
