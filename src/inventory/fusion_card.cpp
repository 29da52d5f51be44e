#include "inventory/fusion_card.h"

#include <sys/stat.h>

#include <string_view>

#include "inventory/drive_links.h"
#include "platform/stdio_file.h"

namespace {

constexpr const char* kCard = "/proc/fusion/fct";
constexpr const char* kIoDriveCard = "/proc/fusion/iodrive/fct";
constexpr const char* kChannelsOfFirstCard = "/proc/fusion/fct0/nand_dev/channels/0";

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string Trim(std::string_view text) {
  constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
  const size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return "";
  return std::string(text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1));
}

std::string TextBehind(std::string_view key, std::string_view line) {
  const size_t place = line.find(key);
  return place == std::string_view::npos ? "" : Trim(line.substr(place + key.size()));
}

std::string CardDirectory(int card) {
  return kCard + std::to_string(card);
}

std::string BoardInfoDirectory(int card) {
  const std::string directory = kIoDriveCard + std::to_string(card);
  return IsDirectory(directory) ? directory : CardDirectory(card) + "/iodrive";
}

}  // namespace

CFusionBoardInfo ParseFusionBoardInfo(const std::vector<std::string>& lines) {
  CFusionBoardInfo info;
  if (!lines.empty()) {
    const std::string vendor = Trim(lines[0]);
    info.vendor = vendor.substr(0, vendor.find(' '));
  }
  if (lines.size() > 2) info.productName = TextBehind("Product:", lines[2]);
  if (lines.size() > 3) info.serialNumber = TextBehind("SN:", lines[3]);
  return info;
}

CFusionBoardInfo ReadFusionBoardInfo(int card) {
  std::vector<std::string> lines;
  CStdioFile::ReadFile(lines, BoardInfoDirectory(card) + "/board_info");
  return ParseFusionBoardInfo(lines);
}

bool GetFusionBlockDevice(std::string& name, int card) {
  const char* suffix = IsDirectory(kChannelsOfFirstCard) ? "/nand_dev/channels/0/client" : "/channels/0/client";
  return CStdioFile::GetLineFromFile(name, CardDirectory(card) + suffix, 0);
}

bool GetFusionPciAddress(CPciAddress& pci, int card) {
  std::string line;
  if (!CStdioFile::GetLineFromFile(line, CardDirectory(card) + "/bus_id", 0) &&
      !CStdioFile::GetLineFromFile(line, CardDirectory(card) + "/nand_dev/bus_id", 0)) {
    return false;
  }
  return ReadPciAddressByPosition(pci, line);
}
