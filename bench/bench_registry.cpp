// The registry beside its floors and, where it is installed, beside SQLite. Every figure comes in two sizes, and the
// shapes "many" (keys of 100 values) and "one" (all values in one key).
//
// Works on real files below a root of its own in the current directory, so that syncs reach the disk that it lies on.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "registry/registry.h"

#ifdef RAVD_BENCH_SQLITE
#include <sqlite3.h>
#endif

namespace {

constexpr const char* kRegistry = "/etc/pelrix/registry";
constexpr const char* kOld = "/etc/pelrix/registry.old";
constexpr const char* kNew = "/etc/pelrix/registry.new";
constexpr const char* kDirectory = "/etc/pelrix";
bool syncsReachTheDisk = true;

struct Place {
  std::string key;  // below HKEY_LOCAL_MACHINE
  std::string name;
};

std::vector<Place> MakePlaces(int64_t count, bool inOneKey) {
  std::vector<Place> places;
  char key[32] = "SOFTWARE";
  char name[32];
  for (int64_t index = 0; index < count; ++index) {
    if (!inOneKey) std::snprintf(key, sizeof key, "SOFTWARE\\Key%05d", static_cast<int>(index / 100));
    std::snprintf(name, sizeof name, "Value%06d", static_cast<int>(inOneKey ? index : index % 100));
    places.push_back({key, name});
  }
  return places;
}

// The file as a save writes it: every second value a number, the others texts.
std::string MakeText(const std::vector<Place>& places) {
  std::string text = "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n";
  std::string open = "SOFTWARE";
  for (size_t index = 0; index < places.size(); ++index) {
    if (places[index].key != open) {
      if (open != "SOFTWARE") text += "\n";
      open = places[index].key;
      text += "[" + open.substr(open.find('\\') + 1) + "]\n";
    }
    text += places[index].name;
    text += index % 2 == 0 ? "=d=" + std::to_string(index) : "=s=/opt/x/" + std::to_string(index);
    text += "\n";
  }
  return text + (open != "SOFTWARE" ? "\n\n\n\n" : "\n\n\n");
}

void WriteText(const std::string& text) {
  std::ofstream(kRegistry, std::ios::binary | std::ios::trunc) << text;
}

void LoadTree(const std::vector<Place>& places) {
  WriteText(MakeText(places));
  CRegistry::SetupTree(true);
}

bool InOneKey(const benchmark::State& state) {
  return state.range(1) != 0;
}

void ReportPerValue(benchmark::State& state) {
  state.counters["per_value"] = benchmark::Counter(
      static_cast<double>(state.range(0)), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Processor time of the thread: what the benchmark does between two measurements does not count.
class Stopwatch {
 public:
  double Seconds() const { return Now() - m_Start; }

 private:
  static double Now() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
  }

  double m_Start = Now();
};

// What a fresh process needs for loading the tree and saving it once, above what it needed before.
void PeakMemory(benchmark::State& state) {
  long grownKb = 0;
  for (auto _ : state) {
    WriteText(MakeText(MakePlaces(state.range(0), InOneKey(state))));
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) std::abort();
    const pid_t child = ::fork();
    if (child == 0) {
      rusage before{};
      rusage after{};
      ::getrusage(RUSAGE_SELF, &before);
      {
        CRegistry registry("SOFTWARE", CRegistry::HKEY_LOCAL_MACHINE, 0);
        registry.SetValue("Value000000", 1U);
      }
      ::getrusage(RUSAGE_SELF, &after);
      const long grown = after.ru_maxrss - before.ru_maxrss;
      std::_Exit(::write(pipeEnds[1], &grown, sizeof grown) == sizeof grown ? 0 : 1);
    }
    if (::read(pipeEnds[0], &grownKb, sizeof grownKb) != sizeof grownKb) std::abort();
    ::waitpid(child, nullptr, 0);
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
  }
  state.counters["peak_kb"] = static_cast<double>(grownKb);
}

void LoadFloorReadFile(benchmark::State& state) {
  WriteText(MakeText(MakePlaces(state.range(0), InOneKey(state))));
  std::vector<char> buffer(16 << 20);
  for (auto _ : state) {
    const int fd = ::open(kRegistry, O_RDONLY | O_CLOEXEC);
    benchmark::DoNotOptimize(::read(fd, buffer.data(), buffer.size()));
    ::close(fd);
  }
  ReportPerValue(state);
}

void LoadFloorLinesAndCopies(benchmark::State& state) {
  WriteText(MakeText(MakePlaces(state.range(0), InOneKey(state))));
  for (auto _ : state) {
    std::vector<std::unique_ptr<char[]>> copies;
    copies.reserve(static_cast<size_t>(2 * state.range(0)));
    const Stopwatch watch;
    FILE* file = std::fopen(kRegistry, "re");
    char line[1024];
    while (std::fgets(line, sizeof line, file) != nullptr) {
      const char* equals = std::strchr(line, '=');
      if (equals == nullptr) continue;
      const auto nameLength = static_cast<size_t>(equals - line);
      copies.emplace_back(new char[nameLength + 1]);
      std::memcpy(copies.back().get(), line, nameLength);
      const size_t rest = std::strlen(equals);
      copies.emplace_back(new char[rest]);
      std::memcpy(copies.back().get(), equals, rest);
    }
    std::fclose(file);
    state.SetIterationTime(watch.Seconds());
  }
  ReportPerValue(state);
}

void Load(benchmark::State& state) {
  WriteText(MakeText(MakePlaces(state.range(0), InOneKey(state))));
  for (auto _ : state) {
    CRegistryNode node;
    const Stopwatch watch;
    if (!CRegistry::ReadTree(kRegistry, node)) state.SkipWithError("not loaded");
    state.SetIterationTime(watch.Seconds());
  }
  ReportPerValue(state);
}

// Names in random order, through the handle.
void Fill(benchmark::State& state) {
  std::vector<Place> places = MakePlaces(state.range(0), InOneKey(state));
  std::shuffle(places.begin(), places.end(), std::mt19937(1));
  LoadTree(MakePlaces(1, true));
  for (auto _ : state) {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.DeleteKey("SOFTWARE");
    const Stopwatch watch;
    for (const Place& place : places) {
      registry.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, place.key.c_str());
      registry.SetValue(place.name.c_str(), 1U);
    }
    state.SetIterationTime(watch.Seconds());
    registry.Open("", CRegistry::HKEY_LOCAL_MACHINE);
  }
  ReportPerValue(state);
}

void LookUpByPath(benchmark::State& state) {
  std::vector<Place> places = MakePlaces(state.range(0), InOneKey(state));
  LoadTree(places);
  std::shuffle(places.begin(), places.end(), std::mt19937(1));
  places.resize(10000);
  CRegistry registry;
  size_t index = 0;
  for (auto _ : state) {
    const Place& place = places[index];
    index = index + 1 < places.size() ? index + 1 : 0;
    if (registry.Open(place.key.c_str(), CRegistry::HKEY_LOCAL_MACHINE) != 0 ||
        registry.GetValue(place.name.c_str()) == nullptr) {
      state.SkipWithError("not found");
    }
  }
}

// The same walk over plain sorted vectors: two binary searches and a copy, no locks and no handle.
void LookUpFloor(benchmark::State& state) {
  using Entry = std::pair<std::string, std::string>;
  std::vector<std::pair<std::string, std::vector<Entry>>> keys;
  std::vector<Place> places = MakePlaces(state.range(0), InOneKey(state));
  for (const Place& place : places) {
    if (keys.empty() || keys.back().first != place.key) keys.emplace_back(place.key, std::vector<Entry>());
    keys.back().second.emplace_back(place.name, "0123");
  }
  std::shuffle(places.begin(), places.end(), std::mt19937(1));
  places.resize(10000);
  const auto less = [](const auto& row, const char* name) { return std::strcmp(row.first.c_str(), name) < 0; };
  size_t index = 0;
  char copy[64];
  for (auto _ : state) {
    const Place& place = places[index];
    index = index + 1 < places.size() ? index + 1 : 0;
    const auto key = std::lower_bound(keys.begin(), keys.end(), place.key.c_str(), less);
    const auto value = std::lower_bound(key->second.begin(), key->second.end(), place.name.c_str(), less);
    std::memcpy(copy, value->second.c_str(), value->second.size() + 1);
    benchmark::DoNotOptimize(copy);
  }
}

void SaveFloor(benchmark::State& state, bool durable) {
  const std::string text = MakeText(MakePlaces(state.range(0), InOneKey(state)));
  WriteText(text);
  for (auto _ : state) {
    const int fd = ::open(kNew, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) state.SkipWithError("write");
    if (durable) ::fsync(fd);
    ::close(fd);
    std::rename(kRegistry, kOld);
    std::rename(kNew, kRegistry);
    if (!durable) continue;
    const int directory = ::open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::fsync(directory);
    ::close(directory);
  }
  ReportPerValue(state);
}

void Save(benchmark::State& state, bool durable) {
  LoadTree(MakePlaces(state.range(0), InOneKey(state)));
  CRegistry registry("SOFTWARE", CRegistry::HKEY_LOCAL_MACHINE, 0);
  unsigned int number = 0;
  syncsReachTheDisk = durable;
  for (auto _ : state) {
    registry.SetValue("Value000000", ++number);
    CRegistry::SaveTree();
  }
  syncsReachTheDisk = true;
  ReportPerValue(state);
}

#ifdef RAVD_BENCH_SQLITE
class Database {
 public:
  explicit Database(const std::vector<Place>& places) {
    std::filesystem::remove(kFile);
    sqlite3_open(kFile, &m_Database);
    Execute("PRAGMA journal_mode=DELETE; PRAGMA synchronous=FULL");
    Execute("CREATE TABLE entry (path TEXT, name TEXT, value TEXT, PRIMARY KEY (path, name)) WITHOUT ROWID; BEGIN");
    sqlite3_stmt* insert = Prepare("INSERT INTO entry VALUES (?, ?, '/opt/x/12345')");
    for (const Place& place : places)
      Run(insert, place);
    sqlite3_finalize(insert);
    Execute("COMMIT");
  }
  ~Database() { sqlite3_close(m_Database); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void Execute(const char* text) { sqlite3_exec(m_Database, text, nullptr, nullptr, nullptr); }
  sqlite3_stmt* Prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(m_Database, text, -1, &statement, nullptr);
    return statement;
  }
  static int Run(sqlite3_stmt* statement, const Place& place) {
    sqlite3_reset(statement);
    sqlite3_bind_text(statement, 1, place.key.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, place.name.c_str(), -1, SQLITE_STATIC);
    return sqlite3_step(statement);
  }

 private:
  static constexpr const char* kFile = "/etc/pelrix/registry.db";
  sqlite3* m_Database = nullptr;
};

void SqliteReadEveryRow(benchmark::State& state) {
  Database database(MakePlaces(state.range(0), InOneKey(state)));
  sqlite3_stmt* select = database.Prepare("SELECT path, name, value FROM entry");
  for (auto _ : state) {
    while (sqlite3_step(select) == SQLITE_ROW)
      benchmark::DoNotOptimize(sqlite3_column_text(select, 2));
    sqlite3_reset(select);
  }
  sqlite3_finalize(select);
  ReportPerValue(state);
}

void SqliteLookUp(benchmark::State& state) {
  std::vector<Place> places = MakePlaces(state.range(0), InOneKey(state));
  Database database(places);
  std::shuffle(places.begin(), places.end(), std::mt19937(1));
  sqlite3_stmt* select = database.Prepare("SELECT value FROM entry WHERE path = ? AND name = ?");
  size_t index = 0;
  for (auto _ : state) {
    if (Database::Run(select, places[index++ % places.size()]) != SQLITE_ROW) state.SkipWithError("not found");
    benchmark::DoNotOptimize(sqlite3_column_text(select, 0));
  }
  sqlite3_finalize(select);
}

void SqliteDurableUpdate(benchmark::State& state) {
  const std::vector<Place> places = MakePlaces(state.range(0), InOneKey(state));
  Database database(places);
  sqlite3_stmt* update = database.Prepare("UPDATE entry SET value = value || '1' WHERE path = ? AND name = ?");
  size_t index = 0;
  for (auto _ : state)
    Database::Run(update, places[index++ % places.size()]);
  sqlite3_finalize(update);
}
#endif

void Sizes(benchmark::internal::Benchmark* subject) {
  subject->ArgNames({"values", "one"})->ArgsProduct({{10000, 100000}, {0, 1}})->Unit(benchmark::kMicrosecond);
}

void LookUpSizes(benchmark::internal::Benchmark* subject) {
  subject->ArgNames({"values", "one"})->ArgsProduct({{10000, 100000}, {0, 1}})->Unit(benchmark::kNanosecond);
}

void EnterRoot(const std::string& root) {
  std::filesystem::create_directories(root + kDirectory);
  if (::unshare(CLONE_NEWNS | (::geteuid() == 0 ? 0 : CLONE_NEWUSER)) != 0 || ::chroot(root.c_str()) != 0 ||
      ::chdir("/") != 0) {
    std::perror("bench_registry: a root of its own");
    std::exit(1);
  }
}

}  // namespace

BENCHMARK(PeakMemory)->Apply(Sizes)->Iterations(1);
BENCHMARK(LoadFloorReadFile)->Apply(Sizes);
BENCHMARK(LoadFloorLinesAndCopies)->Apply(Sizes)->UseManualTime();
BENCHMARK(Load)->Apply(Sizes)->UseManualTime();
BENCHMARK(Fill)->Apply(Sizes)->UseManualTime();
BENCHMARK(LookUpFloor)->Apply(LookUpSizes);
BENCHMARK(LookUpByPath)->Apply(LookUpSizes);
BENCHMARK_CAPTURE(SaveFloor, NoSync, false)->Apply(Sizes)->UseRealTime();
BENCHMARK_CAPTURE(Save, NoSync, false)->Apply(Sizes)->UseRealTime();
BENCHMARK_CAPTURE(SaveFloor, Durable, true)->Apply(Sizes)->UseRealTime();
BENCHMARK_CAPTURE(Save, Durable, true)->Apply(Sizes)->UseRealTime();
#ifdef RAVD_BENCH_SQLITE
BENCHMARK(SqliteReadEveryRow)->Apply(Sizes);
BENCHMARK(SqliteLookUp)->Apply(LookUpSizes);
BENCHMARK(SqliteDurableUpdate)->Apply(Sizes)->UseRealTime();
#endif

// Lets a save run without its syncs.
extern "C" int fsync(int fd) {
  static auto* const system = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "fsync"));
  return syncsReachTheDisk ? system(fd) : 0;
}

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::string root = (std::filesystem::current_path() / "bench-root-XXXXXX").string();
  if (::mkdtemp(root.data()) == nullptr) return 1;
  const pid_t child = ::fork();
  if (child == 0) {
    EnterRoot(root);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  std::filesystem::remove_all(root);
  return status == 0 ? 0 : 1;
}
