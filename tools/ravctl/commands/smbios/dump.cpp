// smbios dump: the bytes, for the eye or into new files.

#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/smbios/group.h"

namespace ravctl {

namespace {

using Bytes = std::span<const unsigned char>;

constexpr size_t kBytesPerLine = 16;

struct Options {
  std::string table;
  std::string entryPoint;
  std::string dumpFile;
};

std::string_view TextOf(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Serial numbers are nobody else's business: the files are the caller's alone.
std::string HexDump(const char* heading, Bytes bytes) {
  std::string text;
  CDataStream::DumpHex(text, bytes.data(), bytes.size(), true, true, kBytesPerLine, 1, "  ");
  return std::string(heading) + ", " + std::to_string(bytes.size()) + " bytes\n" + text + "\n";
}

ExitCode Run(const Options& options, Output& out) {
  const SmbiosImage image = ReadSmbiosImage();
  Json files = Json::array();
  std::string text;
  const auto write = [&](const std::string& path, std::string_view bytes) {
    if (path.empty()) return;
    WriteNewFile(path, bytes);
    files.push_back(path);
    text += Printable(path) + ": " + std::to_string(bytes.size()) + " bytes\n";
  };
  write(options.table, TextOf(image.table.Bytes()));
  write(options.entryPoint, TextOf(image.entryPoint.Bytes()));
  write(options.dumpFile, options.dumpFile.empty() ? "" : SmbiosDumpFile(image));
  if (files.empty()) {
    text = HexDump("Entry point", image.entryPoint.Bytes()) + HexDump("Structure table", image.table.Bytes());
  }
  out.Print(kSmbiosDump, text,
            {{"source", image.source},
             {"entry_point", UpperHexText(image.entryPoint.Bytes())},
             {"table", UpperHexText(image.table.Bytes())},
             {"files", files}});
  return ExitCode::kDone;
}

}  // namespace

void AddSmbiosDump(Command& smbios) {
  auto options = std::make_shared<Options>();
  Command& dump = smbios.Add({"dump",
                              "Print the bytes in hexadecimal, or write them to new files",
                              {{"ravctl smbios dump", "entry point and table for the eye"},
                               {"ravctl smbios dump --raw dmi.bin --entry-point entry.bin", "as they are, mode 0600"},
                               {"ravctl smbios dump --dump-bin dmi.dump", "for dmidecode --from-dump dmi.dump"}}},
                             [options](Output& out) { return Run(*options, out); });
  dump.Answers({&kSmbiosDump});
  dump.AddOption("--raw", &options->table, "FILE", "Write the structure table to this new file");
  dump.AddOption("--entry-point", &options->entryPoint, "FILE", "Write the entry point to this new file");
  dump.AddOption("--dump-bin", &options->dumpFile, "FILE",
                 "Write both to this new file, as dmidecode --from-dump reads");
}

}  // namespace ravctl
