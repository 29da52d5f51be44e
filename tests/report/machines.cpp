// Writes the machines of the report test as trees below a directory, for `ravctl report TREE`:
//   small      next to nothing, as a virtual machine
//   server     slots, drives, memory, a trace with a gap and a kept run that crashed; before/ is it some time earlier
//   large      a trace of 100,000 entries
//   hostile    everything that a stranger can write is meant to break out of the page
// Usage: report_machines DIRECTORY TRAP, an address that nobody must ask for anything

#include <cstdio>
#include <filesystem>
#include <string>

#include "inventory/server_machine.h"
#include "support/firmware_tables.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kTraces = "/var/log/pelrix/";
constexpr int kLargeEntries = 100000;

std::string Bytes(std::initializer_list<unsigned int> bytes) {
  std::string text;
  for (const unsigned int byte : bytes)
    text += static_cast<char>(byte);
  return text;
}

// Places of a bus with their names, which are the structure's first string.
void AddSlot(SmbiosTable& table, unsigned int number, unsigned int width, bool isUsed, unsigned int bus,
             const std::string& name) {
  table.Add(9, Bytes({1, 0xA5, width, isUsed ? 4U : 3U, 4, number, 0, 12, 1, 0, 0, bus, 0}), {name});
}

void AddModule(SmbiosTable& table, unsigned int sizeMb, const std::string& name, const std::string& maker) {
  table.Add(17,
            Bytes({0xFE, 0xFF, 0xFE, 0xFF, 72, 0, 64, 0}) + LittleEndian(sizeMb, 2) + Bytes({9, 0, 1, 2, 0x1A, 0, 0}) +
                LittleEndian(3200, 2) + Bytes({3, 4, 0, 5}),
            {name, "BANK 0", maker, "0012AF", "KM-32G"});
}

std::string Entry(int64_t milliseconds, const std::string& text) {
  char time[64];
  std::snprintf(time, sizeof time, "2026-11-%02d %02d:%02d:%02d.%03d [%08X] ravd          ",
                static_cast<int>(milliseconds / 86400000 % 28 + 1), static_cast<int>(milliseconds / 3600000 % 24),
                static_cast<int>(milliseconds / 60000 % 60), static_cast<int>(milliseconds / 1000 % 60),
                static_cast<int>(milliseconds % 1000), static_cast<unsigned int>(milliseconds % 3 + 0x1000));
  return time + text + "\n";
}

// Number of each ten: a warning, an error, else nothing special.
std::string NumberedEntry(int64_t milliseconds, int number) {
  static const char* const names[] = {"Heartbeat           : beat ",      "CSystemDeviceScan   : Scan system drives ",
                                      "CRegistry           : saved key ", "RAVD-MAIN: Load ",
                                      "CPerfMon            : sample ",    "libnetif            : link eth0 "};
  const char* how = number % 1000 == 7 ? " ERROR: FAILED to answer" : number % 100 == 3 ? " WARNING: slow" : "";
  return Entry(milliseconds, names[number % 6] + std::to_string(number) + how);
}

std::string Entries(int64_t from, int64_t step, int first, int count) {
  std::string text;
  for (int number = first; number < first + count; ++number)
    text += NumberedEntry(from + (number - first) * step, number);
  return text;
}

constexpr int64_t kHour = 3600000;

// A start-up, and a ring buffer that has lost what followed it: its newest entries stand before the oldest.
void WriteWrappedTrace(const FixtureRoot& root) {
  root.WriteFile(std::string(kTraces) + "log.ravd_i", Entries(10 * kHour, 20, 0, 200));
  root.WriteFile(std::string(kTraces) + "log.ravd_a", Entry(10 * kHour + 4000, "### Begin of RingBuffer. ###") +
                                                          Entries(13 * kHour, 1000, 5000, 1000) + "## TRACE-END ##\n" +
                                                          Entries(12 * kHour, 1000, 4000, 1000));
  const std::string kept = std::string(kTraces) + "crash-20261124T024523Z/";
  root.WriteFile(kept + "exit", "time=20261124T024523Z\nresult=core-dump\nstatus=\nsignal=SEGV\npid=4711\n");
  root.WriteFile(kept + "log.ravd_a", Entry(2 * kHour, "### Begin of RingBuffer. ###") +
                                          Entries(2 * kHour, 500, 0, 300) + "## TRACE-END ##\n");
}

class Server : public ServerMachine {
 public:
  explicit Server(bool isBefore) {
    SmbiosTable table;
    table.Add(0, Bytes({1, 2, 0, 0, 3, 0}), {"Kestrel Firmware", isBefore ? "2.0.1" : "2.1.0", "2026-03-01"})
        .Add(1, Bytes({1, 2, 3, 4}) + std::string(16, 7) + Bytes({6}), {"Kestrel", "Perch R2", "1.0", "SGH512XK7Q"})
        .Add(4, Bytes({1, 3, 0xB3, 2}) + std::string(8, 1) + Bytes({3}), {"CPU 1", "Raven", "Raven R7 32 cores"});
    AddModule(table, 32768 / 2, "DIMM A1", "Kestrel Memory");
    AddModule(table, isBefore ? 0 : 32768 / 2, "DIMM A2", "Kestrel Memory");
    AddModule(table, 0, "DIMM B1", "none");
    AddSlot(table, 3, 13, true, 0x17, "PCIe slot 3");
    AddSlot(table, 4, 11, false, 0x18, "PCIe slot 4");  // called available, but there is a card
    AddSlot(table, 5, 10, false, 0x60, "PCIe slot 5");
    AddSlot(table, 6, 13, true, 0x5E, "PCIe slot 6");
    AddSlot(table, 6, 9, false, 0x61, "PCIe slot 6 again");
    WriteSmbios(*this, table.AddEnd());
    Add("0000:00:01.0", 0x8086F030, 0x060400, "", {.headerType = 0x81, .secondaryBus = 0x17});
    Add("0000:00:02.0", 0x8086F030, 0x060400, "", {.headerType = 1, .secondaryBus = 0x18});
    Add("0000:17:00.0", 0x80861521, 0x020000, "igb", {.headerType = 0x80, .subVendor = 0x1734, .subDevice = 1});
    if (!isBefore) Add("0000:18:00.0", 0x1000FF16, 0x010400, "megaraid_sas");
    Add("0000:5e:00.0", 0x144DFFA8, 0x010802, "nvme");
    MakeDirectory("/sys/bus/pci/devices");
    AddInterface("eth7", "02:00:00:00:00:01", "../../../0000:17:00.0");
    MakeLink("/sys/block/nvme0n1", "../devices/pci0000:5d/0000:5e:00.0/nvme/nvme0/nvme0n1");
    WriteFile("/etc/mtab", "/dev/nvme0n1p2 /data xfs rw 0 0\nproc /proc proc rw 0 0\n");
    WriteFile("/etc/os-release", "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n");
    WriteFile("/proc/sys/kernel/osrelease", isBefore ? "6.1.0-1\n" : "6.1.0-2\n");
    WriteFile("/proc/meminfo", "MemTotal:       32768000 kB\n");
    WriteFile("/ravctl/modules.txt", "/usr/lib/ravd/modules/libwatch.so 81920 0a1b2c\n");
    WriteFile(
        "/ravctl/inventory-volumes.json",
        R"({"schema":"ravctl/inventory-volumes","version":1,"root":"/","warnings":[],"data":[{"mount_point":"/data",)"
        R"("device":"/dev/nvme0n1p2","type":"xfs","kind":"local","drive":"/dev/nvme0n1","drives":["/dev/nvme0n1"],)"
        R"("on":["/dev/nvme0n1p2"],"layers":[],"size_kb":2000000,"available_kb":100000,"used_percent":95,)"
        R"("blocks":500000,"available_blocks":25000,"block_size":4096,"type_flags":0,"source":"mounted"}]})");
    WriteWrappedTrace(*this);
  }
};

// Texts that would run, end their element, turn the direction or break a parser, where they were taken as they stand.
std::string Hostile(const std::string& trap) {
  return "</script><script>document.title='ran'</script><img src=" + trap + " onerror=\"document.title='ran'\">" +
         "<link rel=stylesheet href=" + trap + "><!--<svg/onload=document.title='ran'>\xE2\x80\xAE" +
         "live \xFF\xC3(\x1b[2J" + "\" onclick=\"document.title='ran'\" style=\"background:url(" + trap + ")";
}

std::string Visible(std::string text) {
  std::erase_if(text, [](char byte) { return byte == '\n' || byte == '\0'; });
  return text;
}

class HostileMachine : public ServerMachine {
 public:
  explicit HostileMachine(const std::string& trap) {
    SmbiosTable table;
    const std::string text = Visible(Hostile(trap));
    const std::string longText(60000, 'A');
    table.Add(0, Bytes({1, 2, 0, 0, 3, 0}), {text, text, text})
        .Add(1, Bytes({1, 2, 3, 4}) + std::string(16, 7) + Bytes({6}), {text, text, text, text})
        .Add(4, Bytes({1, 3, 0xB3, 2}) + std::string(8, 1) + Bytes({3}), {text, text, longText});
    AddModule(table, 1024, text, text);
    AddSlot(table, 3, 13, true, 0x17, text);
    AddSlot(table, 3, 13, true, 0x17, longText);
    WriteSmbios(*this, table.AddEnd());
    Add("0000:17:00.0", 0x80861521, 0x020000, "<b>igb", {.headerType = 0x80, .subVendor = 0x1734, .subDevice = 1});
    Add("0000:5e:00.0", 0x144DFFA8, 0x010802, "nvme");
    MakeDirectory("/sys/bus/pci/devices");
    WriteFile("/etc/pelrix/Adapter.ini", "[8086]\nVendor=" + text + "\n1521=" + text + "\n");
    MakeLink("/sys/block/nvme0n1", "../devices/pci0000:5d/0000:5e:00.0/nvme/nvme0/nvme0n1");
    WriteFile("/sys/devices/pci0000:5d/0000:5e:00.0/nvme/nvme0/nvme0n1/device/serial", text + "\n");
    WriteFile("/etc/mtab",
              "/dev/<script>alert(1)</script> /</script><img\\040src=x\\040onerror=alert(1)> ext4 rw 0 0\n");
    WriteFile("/etc/os-release", "PRETTY_NAME=" + text + "\n");
    WriteFile("/proc/sys/kernel/osrelease", text + "\n");
    WriteFile("/ravctl/modules.txt", text + " 1 " + "<i>\n");
    WriteFile("/ravctl/packages.txt", text + "\n");
    std::string trace;
    for (int number = 0; number < 50; ++number)
      trace += Entry(number * 1000, "<img\xE2\x80\xAE-src=x>-ERROR   : " + text + "\n" + text);
    trace += "9999-99-99 99:99:99.999 [00001000] ravd          no time\n" +
             Entry(60000, "Long                : " + std::string(1000000, '<'));
    WriteFile(std::string(kTraces) + "log.ravd_a", trace);
    const std::string kept = std::string(kTraces) + "crash-20261124T024523Z/";
    WriteFile(kept + "exit", "result=" + text.substr(0, 60) + "\nsignal=<script>\npid=1\n");
    WriteFile(kept + "log.ravd_a", trace);
    WriteFile("/manifest.json",
              "{\"host\": \"</script><script>document.title='ran'</script>\", \"tool\": [\"<img>\"], "
              "\"missing\": [null, {\"path\": \"<img src=x>\", \"reason\": 7}]}");
  }
};

void Keep(const FixtureRoot& root, const fs::path& place) {
  fs::copy(root.HostPath("/"), place, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const fs::path directory = argv[1];
  FixtureRoot small, large;
  small.WriteFile("/etc/pelrix/registry", "HKEY_LOCAL_MACHINE\n");
  small.WriteFile(std::string(kTraces) + "log.ravd", Entries(0, 1000, 0, 40));
  large.WriteFile(std::string(kTraces) + "log.ravd", Entries(kHour, 500, 0, kLargeEntries));
  Keep(small, directory / "small");
  Keep(large, directory / "large");
  Keep(Server(false), directory / "server");
  Keep(Server(true), directory / "before");
  Keep(HostileMachine(argv[2]), directory / "hostile");
  return ::testing::Test::HasFailure() ? 1 : 0;
}
