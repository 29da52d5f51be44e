#include "ravctl/daemon/library_check.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>

#include "daemon/switch_interface.h"
#include "platform/unique_fd.h"
#include "ravctl/base/child.h"
#include "ravctl/base/crash_report.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace fs = std::filesystem;

namespace {

constexpr const char* kLoaderDirectory = "/etc/ld.so.conf.d";
constexpr auto kLoaderUsual = std::to_array<std::string_view>(
    {"/lib/x86_64-linux-gnu", "/usr/lib/x86_64-linux-gnu", "/lib64", "/usr/lib64", "/lib", "/usr/lib"});
constexpr size_t kMostLoaded = 256;  // libraries
constexpr const char* kAccessList = "system.posix_acl_access";
constexpr int kMostLinks = 40;  // as many as the kernel follows
constexpr int kLoadSeconds = 10;
constexpr int kNotLoaded = 1;
constexpr int kRefused = 2;
constexpr int kOddTable = 3;

struct SlotRow {
  size_t slot;
  const char* operation;
};

// What the daemon calls.
constexpr auto kCalledSlots = std::to_array<SlotRow>(
    {{2, "LoadModules"}, {3, "UnloadModules"}, {4, "StartModules"}, {5, "StopModules"}, {16, "NotifyEvent"}});

class CheckList {
 public:
  explicit CheckList(std::string place) : m_Place(std::move(place)) {}

  void Say(bool isGood, const char* check, const std::string& what, const char* toDo = "") {
    m_Findings.push_back({isGood ? Severity::kGood : Severity::kBad, check, m_Place, what, toDo});
  }
  void Skip(const char* check, const std::string& what, const char* toDo) {
    m_Findings.push_back({Severity::kUnknown, check, m_Place, what, toDo});
  }
  const Findings& Result() const { return m_Findings; }

 private:
  std::string m_Place;
  Findings m_Findings;
};

// What the dynamic symbol table and section of a library say.
struct LibraryNames {
  std::set<std::string> defined;
  std::set<std::string> wanted;
  std::vector<std::string> needed;
  std::vector<std::string> directories;  // where it has the loader look for them first
};

struct ElfDeleter {
  void operator()(Elf* elf) const { elf_end(elf); }
};

void ReadSymbols(Elf* elf, Elf_Scn* section, const GElf_Shdr& header, LibraryNames& names) {
  Elf_Data* data = elf_getdata(section, nullptr);
  if (data == nullptr || header.sh_entsize == 0) return;
  for (size_t index = 1; index < header.sh_size / header.sh_entsize; ++index) {
    GElf_Sym symbol;
    if (gelf_getsym(data, static_cast<int>(index), &symbol) == nullptr) return;
    const char* name = elf_strptr(elf, header.sh_link, symbol.st_name);
    if (name == nullptr || *name == '\0') continue;
    const bool isVisible = GELF_ST_BIND(symbol.st_info) != STB_LOCAL;
    if (isVisible) (symbol.st_shndx == SHN_UNDEF ? names.wanted : names.defined).insert(name);
  }
}

void ReadNeeded(Elf* elf, Elf_Scn* section, const GElf_Shdr& header, LibraryNames& names) {
  Elf_Data* data = elf_getdata(section, nullptr);
  if (data == nullptr || header.sh_entsize == 0) return;
  for (size_t index = 0; index < header.sh_size / header.sh_entsize; ++index) {
    GElf_Dyn entry;
    if (gelf_getdyn(data, static_cast<int>(index), &entry) == nullptr) return;
    const bool isPath = entry.d_tag == DT_RPATH || entry.d_tag == DT_RUNPATH;
    if (entry.d_tag != DT_NEEDED && !isPath) continue;
    const char* text = elf_strptr(elf, header.sh_link, entry.d_un.d_val);
    if (text == nullptr) continue;
    for (std::string& part : isPath ? SplitList(text, ':') : std::vector<std::string>{text})
      (isPath ? names.directories : names.needed).push_back(std::move(part));
  }
}

// Throws CommandError when the file is no shared library for this machine.
LibraryNames ReadLibrary(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) throw SystemFailure("cannot open the library", path, errno);
  elf_version(EV_CURRENT);
  const std::unique_ptr<Elf, ElfDeleter> elf(elf_begin(file.Get(), ELF_C_READ, nullptr));
  GElf_Ehdr header;
  if (elf == nullptr || elf_kind(elf.get()) != ELF_K_ELF || gelf_getehdr(elf.get(), &header) == nullptr ||
      header.e_machine != EM_X86_64 || header.e_type != ET_DYN) {
    throw CommandError(ExitCode::kInputDamaged, "not a shared library for x86-64", path,
                       "name a libswitch.so or a module");
  }
  LibraryNames names;
  for (Elf_Scn* section = elf_nextscn(elf.get(), nullptr); section != nullptr;
       section = elf_nextscn(elf.get(), section)) {
    GElf_Shdr part;
    if (gelf_getshdr(section, &part) == nullptr) continue;
    if (part.sh_type == SHT_DYNSYM) ReadSymbols(elf.get(), section, part, names);
    if (part.sh_type == SHT_DYNAMIC) ReadNeeded(elf.get(), section, part, names);
  }
  return names;
}

enum class LibraryKind { kSwitch, kModule, kOther };

LibraryKind KindOf(const LibraryNames& names) {
  if (names.defined.contains("SW_QueryInterface")) return LibraryKind::kSwitch;
  const bool isModule = names.defined.contains("ModuleStart") || names.defined.contains("ModuleStop");
  return isModule ? LibraryKind::kModule : LibraryKind::kOther;
}

void CheckSymbols(const LibraryNames& names, CheckList& list) {
  const auto check = [&](const char* name, bool isOptional) {
    const bool isThere = names.defined.contains(name);
    list.Say(isThere || isOptional, name,
             isThere      ? "exported"
             : isOptional ? "missing (it may be)"
                          : "missing",
             isThere || isOptional ? "" : "export it with a plain name: extern \"C\" and default visibility");
  };
  switch (KindOf(names)) {
    case LibraryKind::kModule:
      list.Say(true, "kind", "a module as the example switch loads it");
      check("ModuleStart", false);
      check("ModuleStop", false);
      check("ModuleNotify", true);
      break;
    case LibraryKind::kOther:
      list.Say(false, "kind", "neither a module switch nor a module of the example switch",
               "a switch exports SW_QueryInterface, such a module ModuleStart and ModuleStop");
      [[fallthrough]];
    case LibraryKind::kSwitch:
      check("SW_QueryInterface", false);
      check("SW_Release", true);
      check("SW_AddRef", true);
      break;
  }
  list.Say(true, "Debug", names.wanted.contains("Debug") ? "traces through the daemon's object" : "does not trace");
  std::string needed;
  for (const std::string& library : names.needed)
    needed += (needed.empty() ? "" : ", ") + library;
  list.Say(true, "needs", needed.empty() ? "no library" : needed);
}

void Tell(int fd, const std::string& text) {
  [[maybe_unused]] const ssize_t written = ::write(fd, text.data(), text.size());
}

// In the child: loads the library, of a switch obtains the interface and looks where its table leads.
int LoadAndLook(const std::string& path, LibraryKind kind, int reportFd) {
  ReportCrashesTo(reportFd);
  void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    const char* why = ::dlerror();
    Tell(reportFd, why != nullptr ? why : "cannot be loaded");
    return kNotLoaded;
  }
  if (kind == LibraryKind::kModule) return 0;
  const auto query = reinterpret_cast<SwitchQueryInterfaceFunction>(::dlsym(library, "SW_QueryInterface"));
  ISwitch* interface = nullptr;
  if (query == nullptr || !query(0, &interface) || interface == nullptr) return kRefused;
  void* const* table = *reinterpret_cast<void* const**>(interface);
  for (const SlotRow& row : kCalledSlots) {
    Dl_info info{};
    if (::dladdr(table[row.slot], &info) == 0) {
      Tell(reportFd, std::string("slot ") + std::to_string(row.slot) + " (" + row.operation + ") leads nowhere");
      return kOddTable;
    }
  }
  return 0;
}

void CheckInterface(const std::string& path, LibraryKind kind, CheckList& list) {
  const ChildResult result =
      RunInChild(kLoadSeconds, [&path, kind](int report) { return LoadAndLook(path, kind, report); });
  const char* check = kind == LibraryKind::kModule ? "load" : "interface";
  if (result.isTimeout) {
    list.Say(false, check, "loading took more than " + std::to_string(kLoadSeconds) + " s",
             "do not wait in static objects");
  } else if (result.signal != 0) {
    const std::string place = PlaceOfCrash(result.report);
    list.Say(false, check,
             std::string("loading ended with ") + ::strsignal(result.signal) + (place.empty() ? "" : ", in " + place));
  } else if (result.status == 0) {
    list.Say(true, check,
             kind == LibraryKind::kModule ? "can be loaded" : "handed out; its table of 17 operations leads to code");
  } else if (result.status == kRefused) {
    list.Say(false, check, "refused for identifier 0", "return true and a non-null pointer");
  } else {
    list.Say(false, check,
             result.report.empty() ? "ended with status " + std::to_string(result.status) : result.report);
  }
}

std::string UserName(uid_t uid) {
  const passwd* user = ::getpwuid(uid);
  return user != nullptr ? user->pw_name : "user " + std::to_string(uid);
}

// Who besides root may change what is at the path; empty when nobody may.
std::string Writers(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return std::string("unknown: ") + std::strerror(errno);
  std::string writers;
  const auto add = [&writers](const std::string& who) { writers += (writers.empty() ? "" : ", ") + who; };
  if (info.st_uid != 0) add(UserName(info.st_uid));
  // In a directory with the sticky bit nobody replaces what belongs to another; a link has no mode.
  const bool isShared = S_ISDIR(info.st_mode) && (info.st_mode & S_ISVTX) != 0;
  if (isShared || S_ISLNK(info.st_mode)) return writers;
  const bool hasList = ::getxattr(path.c_str(), kAccessList, nullptr, 0) > 0;
  // The bits of the group bound what an access list grants.
  if ((info.st_mode & S_IWGRP) != 0 && hasList) add("its access list");
  if ((info.st_mode & S_IWGRP) != 0 && info.st_gid != 0) add("group " + std::to_string(info.st_gid));
  if ((info.st_mode & S_IWOTH) != 0) add("everybody");
  return writers;
}

// What decides where an absolute path leads: the directories on the way, links and what they lead to, the file.
std::vector<std::string> Way(const std::string& path) {
  std::vector<std::string> way = {"/"};
  std::vector<fs::path> names;  // to be gone through, the next one at the end
  const auto push = [&names](const fs::path& part) {
    const std::vector<fs::path> parts(part.begin(), part.end());
    names.insert(names.end(), parts.rbegin(), parts.rend());
  };
  push(path);
  fs::path at = "/";
  for (int links = 0; !names.empty() && links <= kMostLinks;) {
    const fs::path name = names.back();
    names.pop_back();
    if (name == "..") at = at.parent_path();
    if (name.empty() || name == "." || name == ".." || name == "/") continue;
    const fs::path here = at / name;
    if (std::ranges::find(way, here.string()) == way.end()) way.push_back(here);
    std::error_code isNoLink;
    const fs::path target = fs::read_symlink(here, isNoLink);
    if (isNoLink) {
      at = here;
      continue;
    }
    ++links;
    if (target.is_absolute()) at = "/";
    push(target);
  }
  return way;
}

// Where the loader looks besides its usual directories.
std::vector<std::string> ConfiguredDirectories() {
  std::vector<std::string> directories;
  std::error_code none;
  for (const fs::directory_entry& file : fs::directory_iterator(kLoaderDirectory, none)) {
    std::string text;
    if (ReadFileInto(file.path(), text) != 0) continue;
    for (const std::string& line : SplitList(text, '\n'))
      if (line.starts_with('/') && std::ranges::count(kLoaderUsual, line) == 0) directories.push_back(line);
  }
  return directories;
}

// "$ORIGIN/../lib" of /opt/bin/libx.so => "/opt/bin/../lib"
std::string WithOrigin(std::string directory, const std::string& library) {
  for (const std::string_view name : {"$ORIGIN", "${ORIGIN}"}) {
    if (directory.starts_with(name)) directory.replace(0, name.size(), fs::path(library).parent_path().string());
  }
  return directory;
}

bool IsLibrary(std::string_view directory, const std::string& name) {
  std::error_code none;
  return fs::exists(fs::path(directory) / name, none);
}

// Nothing for a file that cannot be loaded.
LibraryNames ReadIfLibrary(const std::string& path) try { return ReadLibrary(path); } catch (const CommandError&) {
  return {};
}

// What loading the library brings into a process of root: the library, what it needs, what that needs, and the
// directories in which the loader would rather find one of them. The usual directories of the system are left out:
// whoever may write there needs no module.
std::vector<std::string> LoadedWith(const std::string& library) {
  const std::vector<std::string> configured = ConfiguredDirectories();
  const char* const environment = std::getenv("LD_LIBRARY_PATH");
  std::vector<std::string> libraries = {library};
  std::vector<std::string> loaded;
  for (size_t next = 0; next < libraries.size() && next < kMostLoaded; ++next) {
    const std::string by = libraries[next];
    const LibraryNames names = ReadIfLibrary(by);
    std::vector<std::string> first = SplitList(environment != nullptr ? environment : "", ':');
    for (const std::string& directory : names.directories)
      first.push_back(WithOrigin(directory, by));
    for (const std::string& needed : names.needed) {
      const bool isPath = needed.find('/') != std::string::npos;
      const auto has = [&needed](std::string_view directory) { return IsLibrary(directory, needed); };
      const auto found = std::ranges::find_if(first, has);
      if (!isPath) loaded.insert(loaded.end(), first.begin(), found);
      std::string place = isPath ? fs::absolute(needed).string() : "";
      if (!isPath && found != first.end()) place = *found + "/" + needed;
      if (!isPath && found == first.end() && std::ranges::none_of(kLoaderUsual, has)) {
        const auto other = std::ranges::find_if(configured, has);
        if (other != configured.end()) place = *other + "/" + needed;
      }
      if (!place.empty() && std::ranges::count(libraries, place) == 0) libraries.push_back(place);
    }
  }
  loaded.insert(loaded.end(), libraries.begin(), libraries.end());
  return loaded;
}

// The daemon runs it as root: whoever may write the file, or replace it in a directory above, is root. The same goes
// for what it needs.
bool CheckWriters(const std::string& path, CheckList& list) {
  std::set<std::string> places;
  for (const std::string& loaded : LoadedWith(path)) {
    const std::vector<std::string> way = Way(loaded);
    places.insert(way.begin(), way.end());
  }
  bool isSafe = true;
  for (const std::string& place : places) {
    const std::string writers = Writers(place);
    if (writers.empty()) continue;
    isSafe = false;
    list.Say(false, "writable", place + " by " + writers, "the daemon runs it as root: let root alone write");
  }
  if (isSafe)
    list.Say(true, "writable", "by root alone, and so are the directories above and the libraries that it needs");
  return isSafe;
}

}  // namespace

Findings CheckLibrary(const std::string& library, bool loads) {
  const std::string path = fs::absolute(library).string();  // the loader looks for a bare name elsewhere
  CheckList list(path);
  const LibraryNames names = ReadLibrary(path);
  list.Say(true, "file", "shared library for x86-64");
  const bool isSafe = CheckWriters(path, list);
  CheckSymbols(names, list);
  const LibraryKind kind = KindOf(names);
  if (loads && kind != LibraryKind::kOther) {
    if (isSafe || ::geteuid() != 0) {
      CheckInterface(path, kind, list);
    } else {
      list.Skip(kind == LibraryKind::kModule ? "load" : "interface",
                "not loaded: another user could have put code into it, and it would run as root",
                "mend what is writable, or check it as an ordinary user");
    }
  }
  return list.Result();
}

std::string BuildIdOf(const std::string& library) {
  const UniqueFd file(::open(library.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  elf_version(EV_CURRENT);
  const std::unique_ptr<Elf, ElfDeleter> elf(file ? elf_begin(file.Get(), ELF_C_READ, nullptr) : nullptr);
  Elf_Scn* section = nullptr;
  while (elf != nullptr && (section = elf_nextscn(elf.get(), section)) != nullptr) {
    GElf_Shdr part;
    Elf_Data* data = elf_getdata(section, nullptr);
    if (gelf_getshdr(section, &part) == nullptr || part.sh_type != SHT_NOTE || data == nullptr) continue;
    GElf_Nhdr note;
    size_t name = 0, description = 0;
    for (size_t at = 0; (at = gelf_getnote(data, at, &note, &name, &description)) > 0;) {
      const std::string_view bytes(static_cast<const char*>(data->d_buf), data->d_size);
      if (note.n_type == NT_GNU_BUILD_ID && bytes.substr(name).starts_with("GNU")) {
        return HexBytes(bytes.substr(description, note.n_descsz));
      }
    }
  }
  return "";
}

}  // namespace ravctl
