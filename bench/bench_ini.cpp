// One look-up in an INI file of 1 MB and 40,000 lines, beside the floor of reading that file once and beside reading it
// line by line with fgets.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "platform/ini_file.h"
#include "platform/unique_fd.h"

namespace {

constexpr int kLines = 40000;
constexpr size_t kBlock = 64 * 1024;

// Removed at the end of the program.
class IniFixture {
 public:
  // The last key is "%08X" of the last line's number; it stands in the last section.
  explicit IniFixture(int linesPerSection) {
    const char* name = "ravd-bench-XXXXXX";
    m_Path = (std::filesystem::temp_directory_path() / name).string();
    const UniqueFd fd(::mkstemp(m_Path.data()));
    std::ofstream file(m_Path);
    char line[64];
    for (int number = 0; number < kLines; ++number) {
      if (number % linesPerSection == 0) {
        std::snprintf(line, sizeof line, "[%s]\n", SectionOf(number, linesPerSection).c_str());
      } else {
        std::snprintf(line, sizeof line, "%08X=Adapter %06d\n", static_cast<unsigned int>(number), number);
      }
      file << line;
    }
    section = SectionOf(kLines - 1, linesPerSection);
    std::snprintf(line, sizeof line, "%08X", static_cast<unsigned int>(kLines - 1));
    key = line;
  }
  ~IniFixture() { std::filesystem::remove(m_Path); }
  IniFixture(const IniFixture&) = delete;
  IniFixture& operator=(const IniFixture&) = delete;

  const char* Path() const { return m_Path.c_str(); }

  std::string section;
  std::string key;

 private:
  static std::string SectionOf(int number, int linesPerSection) {
    char name[16];
    std::snprintf(name, sizeof name, "%04X", static_cast<unsigned int>(number / linesPerSection));
    return name;
  }

  std::string m_Path;
};

IniFixture& Fixture(int64_t linesPerSection) {
  static IniFixture thousand(40);
  static IniFixture one(kLines);
  return linesPerSection == 40 ? thousand : one;
}

void BM_FloorReadOnce(benchmark::State& state) {
  const IniFixture& file = Fixture(state.range(0));
  static char block[kBlock];
  for (auto _ : state) {
    const UniqueFd fd(::open(file.Path(), O_RDONLY | O_CLOEXEC));
    while (::read(fd.Get(), block, sizeof block) > 0)
      benchmark::DoNotOptimize(block);
  }
}

void BM_LookUpLastKey(benchmark::State& state) {
  const IniFixture& file = Fixture(state.range(0));
  char value[260];
  for (auto _ : state) {
    const uint32_t length =
        CIniFile::GetPrivateProfileString(file.section.c_str(), file.key.c_str(), "", value, sizeof value, file.Path());
    if (length == 0) state.SkipWithError("not found");
  }
}

// Keys that are not there but look like what is: a word of every value, the beginning of every key, the same end.
void BM_LookUpMissingKey(benchmark::State& state, const char* key) {
  const IniFixture& file = Fixture(state.range(0));
  char value[260];
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        CIniFile::GetPrivateProfileString(file.section.c_str(), key, "", value, sizeof value, file.Path()));
  }
}

void BM_LookUpMissingSection(benchmark::State& state) {
  const IniFixture& file = Fixture(state.range(0));
  char value[260];
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        CIniFile::GetPrivateProfileString("00FF", "Adapter", "", value, sizeof value, file.Path()));
  }
}

void BM_ReadWithFgets(benchmark::State& state) {
  const IniFixture& file = Fixture(state.range(0));
  char line[1024];
  for (auto _ : state) {
    std::FILE* stream = std::fopen(file.Path(), "re");
    while (std::fgets(line, sizeof line, stream) != nullptr)
      benchmark::DoNotOptimize(line);
    std::fclose(stream);
  }
}

void BM_SetLastKey(benchmark::State& state) {
  const IniFixture& file = Fixture(state.range(0));
  const char* value = "Adapter 000000";
  const char* next = "Adapter 039999";
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        CIniFile::WritePrivateProfileString(file.section.c_str(), file.key.c_str(), value, file.Path()));
    std::swap(value, next);  // an edit that changes nothing writes nothing
  }
}

}  // namespace

// Argument: lines in each section.
BENCHMARK(BM_FloorReadOnce)->Arg(40)->Arg(kLines);
BENCHMARK(BM_LookUpLastKey)->Arg(40)->Arg(kLines);
BENCHMARK_CAPTURE(BM_LookUpMissingKey, Plain, "FFFF0123")->Arg(40)->Arg(kLines);
BENCHMARK_CAPTURE(BM_LookUpMissingKey, InEveryValue, "Adapter")->Arg(40)->Arg(kLines);
BENCHMARK_CAPTURE(BM_LookUpMissingKey, BeginsEveryKey, "0000")->Arg(40)->Arg(kLines);
BENCHMARK_CAPTURE(BM_LookUpMissingKey, EndOfKeys, "F0000023")->Arg(40)->Arg(kLines);
BENCHMARK_CAPTURE(BM_LookUpMissingKey, OneDigit, "0")->Arg(40)->Arg(kLines);
BENCHMARK(BM_LookUpMissingSection)->Arg(40)->Arg(kLines);
BENCHMARK(BM_ReadWithFgets)->Arg(kLines);
BENCHMARK(BM_SetLastKey)->Arg(kLines);
BENCHMARK_MAIN();
