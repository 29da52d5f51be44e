#include <sys/syscall.h>

#include <future>
#include <new>

#include "inventory/server_machine.h"
#include "inventory/system_device_scan.h"
#include "support/firmware_tables.h"
#include "support/trace_capture.h"

namespace {

// How far the clock is behind for a thread: what waits from then for the same time is over at once.
thread_local time_t t_SecondsBehind = 0;
// The next allocation of the thread fails.
thread_local bool t_NoMemory = false;

constexpr unsigned int kTimeoutMs = 20'000;

}  // namespace

// Visible to the standard library, which keeps the steady clock.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const int result = static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  time->tv_sec -= t_SecondsBehind;
  return result;
}

void* operator new(size_t size) {
  void* const memory = std::exchange(t_NoMemory, false) ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}

namespace {

// A scan that comes to its network adapter stays there until it may go on.
class BlockedScan {
 public:
  void WaitUntilBlocked() const { m_Entered.wait(false); }
  void Release() {
    m_Released = true;
    m_Released.notify_all();
  }

 private:
  std::optional<int> Answer(unsigned long request, void* argument) {
    if (request != SIOCETHTOOL) return std::nullopt;
    m_Entered = true;
    m_Entered.notify_all();
    m_Released.wait(false);
    return AnswerEthtool(request, argument);
  }

  std::atomic<bool> m_Entered = false;
  std::atomic<bool> m_Released = false;
  FakeIoctl m_Ioctl{
      [this](const std::string&, unsigned long request, void* argument) { return Answer(request, argument); }};
};

// One network adapter, one disk behind it, one mount.
class SmallMachine : public ServerMachine {
 public:
  SmallMachine() {
    Add("0000:02:00.0", 0x10EC8168, 0x020000, "r8169");
    AddInterface("eth0", "02:00:00:00:00:03", "../0000:02:00.0");
    MakeLink("/sys/block/nvme0n1", "../devices/pci0000:00/0000:02:00.0/nvme/nvme0/nvme0n1");
    WriteFile("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n");
  }
};

const char* const kAdapters[] = {
    "ISAPNP\\|Other Controller|rtc0|||||-1",
    "PCI\\VEN_8086&DEV_2020&SUBSYS_00000000&REV_04|System| 0000:00:00.0|||||-1",
    "PCI\\VEN_8086&DEV_a182&SUBSYS_00001234&REV_00|SCSIAdapter|ahci 0000:00:1f.2|ahci||||-1",
    "PCI\\VEN_102b&DEV_0522&SUBSYS_00000000&REV_00|Display|<unknown> 0000:03:00.0|<unknown>||||-1",
    "PCI\\VEN_8086&DEV_1521&SUBSYS_00000001&REV_01|net|eth0 0000:17:00.0|igb|eth0|020000000001|A00000000001|4",
    "PCI\\VEN_8086&DEV_1521&SUBSYS_00000001&REV_01|net|ethx 0000:17:00.1|igb|ethx|000000000000||4",
    "PCI\\VEN_1000&DEV_0016&SUBSYS_00000000&REV_00|SCSIAdapter|megaraid_sas 0000:18:00.0|megaraid_sas||||3",
    "PCI\\VEN_144d&DEV_a808&SUBSYS_00000000&REV_00|Non-Volatile-Memory|nvme 0001:82:00.0|nvme||||-1",
    "PCI\\VEN_8086&DEV_37d1&SUBSYS_00000000&REV_00|net|eth9 0001:83:00.0|i40e  |eth9|020000000009||-1",
};

class TwoSocketServer : public ServerMachine {
 public:
  TwoSocketServer() {
    WriteSmbios(
        *this,
        SmbiosTable().AddSlot({.id = 3, .type = 6, .bus = 0x18}).AddSlot({.id = 4, .type = 6, .bus = 0x17}).AddEnd());
    Add("0000:00:00.0", 0x80862020, 0x060000, "", {.revision = 4, .addresses = {0x1001, 0x2001, 0x3001}});
    Add("0000:00:01.0", 0x80862030, 0x060400, "", {.headerType = 0x81, .secondaryBus = 0x17});
    Add("0000:00:1f.2", 0x8086A182, 0x010601, "ahci", {.subVendor = 0x8086, .subDevice = 0x1234});
    Add("0000:03:00.0", 0x102B0522, 0x030000);
    for (const char* address : {"0000:17:00.0", "0000:17:00.1"})
      Add(address, 0x80861521, 0x020000, "igb",
          {.headerType = 0x80, .subVendor = 0x1734, .subDevice = 1, .revision = 1});
    Add("0000:18:00.0", 0x10000016, 0x010400, "megaraid_sas");
    Add("0001:82:00.0", 0x144DA808, 0x010802, "nvme");
    Add("0001:83:00.0", 0x808637D1, 0x020000, "i40e  ");
    WriteFile("/proc/ioports", "0070-0077 : rtc0\n");
    AddInterface("eth0", "02:00:00:00:00:01", "../../../0000:17:00.0");
    AddInterface("eth9", "02:00:00:00:00:09", "../../../0001:83:00.0");

    List("scsi0 Channel: 02 Id: 00 Lun: 00", "RAVEN", "RAID 5 Volume", "1.03", "Direct-Access");
    AddLinked("0:2:0:0", "pci0000:17/0000:18:00.0/host0/target0:2:0/0:2:0:0");
    MakeDirectory(DriveMachine::Device("0:2:0:0") + "/block/sda");
    MakeLink("/sys/block/nvme1n1", "../devices/pci0001:80/0001:82:00.0/nvme/nvme1/nvme1n1");
    WriteFile("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n/dev/sdb1 /data xfs rw 0 0\ntmpfs /run tmpfs rw 0 0\n");
  }
};

TEST(SystemDeviceScan, WholeMachineIsRecordedAndRelated) {
  RunTraced(TwoSocketServer(), 4, [](TraceCapture& trace) {
    const FakeIoctl system(kEthtool);
    CSystemDeviceScan scan;
    EXPECT_EQ(scan.GetAdapterCount() + scan.GetNumberPciBusses(), 0U);
    EXPECT_EQ(scan.ScanHardware(-1, false, 1000, nullptr), 0);
    ASSERT_EQ(scan.GetAdapterCount(), std::size(kAdapters));
    CSystemAdapter adapter;
    std::string drives;
    for (int index = 0; index < static_cast<int>(std::size(kAdapters)); ++index) {
      ASSERT_TRUE(scan.GetAdapter(adapter, index));
      EXPECT_EQ(Describe(adapter), kAdapters[index]);
      CSystemDriveList list(1);
      const bool found = scan.GetHostDrives(list, adapter);
      EXPECT_EQ(found, !list.empty());
      for (const CSystemDrive& drive : list) {
        CSystemAdapter host;
        EXPECT_TRUE(scan.GetHostAdapter(host, drive));
        EXPECT_EQ(host.DeviceName, adapter.DeviceName);
        drives += adapter.DeviceName + " " + drive.OsDeviceName + "\n";
      }
    }
    EXPECT_EQ(drives, "megaraid_sas 0000:18:00.0 sda\nnvme 0001:82:00.0 nvme1n1\n");
    std::vector<CPhysicalAddress> ports;
    EXPECT_TRUE(scan.GetAdapter(adapter, 1) && adapter.GetIoAddresses(ports) && ports.size() == 2)
        << "a bridge has two";
    const std::string before = Describe(adapter);
    EXPECT_FALSE(scan.GetAdapter(adapter, -1) || scan.GetAdapter(adapter, 9) || scan.FindAdapter(adapter, "") ||
                 scan.FindAdapter(adapter, nullptr) || scan.FindAdapter(adapter, CPciAddress()) ||
                 scan.FindAdapter(adapter, CPciAddress{1, 0x17, 0, 0}) ||
                 scan.GetHostAdapter(adapter, CSystemDrive()) || scan.GetParentAdapter(adapter, adapter));
    EXPECT_EQ(Describe(adapter), before);
    EXPECT_TRUE(scan.FindAdapter(adapter, "pci\\ven_8086&dev_A182&subsys_00001234&REV_00"));
    EXPECT_EQ(adapter.DeviceName, "ahci 0000:00:1f.2");
    EXPECT_TRUE(scan.FindAdapter(adapter, CPciAddress{1, 0x82, 0, 0}));

    CPciSlotData data;
    EXPECT_TRUE(scan.GetPciSlotData(data, CPciAddress{0, 0x18, 0, 0}) && data.slot == 3);
    EXPECT_FALSE(scan.GetPciSlotData(data, CPciAddress()) || scan.GetPciSlotData(data, CPciAddress{0, 0x18, 0, 1}));
    EXPECT_TRUE(scan.GetPciSlotData(data, 0x1521, 0x8086, 0xFFFF, 0x1734));
    EXPECT_TRUE(scan.GetPciSlotData(data, 0x2030, 0x8086, 0, 0)) << "bridges count, without subsystem";
    EXPECT_FALSE(scan.GetPciSlotData(data, 0x1521, 0x8086, 2, 0xFFFF) ||
                 scan.GetPciSlotData(data, 0x1521, 0x8086, 1, 0x8086) ||
                 scan.GetPciSlotData(data, 0x8086, 0x1521, 0xFFFF, 0xFFFF));
    CPciConfigList list;
    EXPECT_TRUE(scan.GetPciSlotConfig(list) && list.size() == 9);
    EXPECT_EQ(scan.GetNumberPciBusses(), 0x84U);

    CSystemVolume volume;
    EXPECT_TRUE(scan.GetVolume(volume, 1) && volume.MountPoint == "/data");
    EXPECT_FALSE(scan.GetVolume(volume, 2) || scan.GetVolume(volume, -1));
    EXPECT_EQ(scan.GetVolumeCount(), 2);
    EXPECT_EQ(scan.GetDriveCount() + scan.GetPartitionCount(), 0);
    EXPECT_EQ(trace.Missing(R"(CSystemAdapter      : Found 9 PCI devices
CSystemDeviceRelations   : Cannot get  Adapter pci address "rtc0".
CSystemDeviceScan   : No adapter found at PCI address (Bus 23 Device 0 Function 0)!
CSystemDeviceScan   : Check device 04 at bus no 3)"),
              "");
  });
}

TEST(SystemDeviceScan, FlagsChooseTheSteps) {
  RunTraced(SmallMachine(), 4, [](TraceCapture& trace) {
    CSystemDeviceScan scan;
    EXPECT_EQ(scan.ScanHardware(0, false, 7, nullptr), 0);
    EXPECT_EQ(trace.Missing(R"(CSystemDeviceScan   : Scan of system adapters skipped!
CSystemDeviceScan   : Scan of system drives skipped!
CSystemDeviceScan   : Scan of system volumes skipped!
CSystemDeviceScan   : Start update thread (partition check) skipped)"),
              "");
    EXPECT_EQ(scan.ScanDevices(CSystemDeviceScan::SCAN_VOLUMES, true, 7), 0);
    EXPECT_TRUE(trace.Has("CSystemDeviceScan   : WatchPartitions() skipped!"));
    EXPECT_EQ(scan.GetAdapterCount(), 0U);
    CSystemVolume volume;
    EXPECT_TRUE(scan.GetVolume(volume, 0));
  });
}

TEST(SystemDeviceScan, QueriesWaitForAScanAndLeaveTheirOutputsWhenTheTimeIsUp) {
  RunTraced(SmallMachine(), 2, [](TraceCapture& trace) {
    BlockedScan blocked;
    CSystemDeviceScan scan;
    std::future<int> result = std::async(std::launch::async, [&] { return scan.ScanDevices(-1, false, kTimeoutMs); });
    blocked.WaitUntilBlocked();
    EXPECT_EQ(scan.ScanHardware(-1, false, 20, nullptr), -1);
    EXPECT_TRUE(
        trace.Has("CSystemDeviceScan   : ## WARNING! Time out waiting for end of pending hardware scan! (20 msec)"));
    EXPECT_TRUE(trace.Has("CSystemDeviceScan   : ... hardware scan completed (FAILED)!"));
    CSystemAdapter adapter;
    adapter.DeviceName = "own";
    CSystemDriveList drives(1);
    CSystemVolume volume;
    CSystemPartition partition;
    t_SecondsBehind = 90;
    EXPECT_EQ(static_cast<int>(scan.GetAdapterCount()) + scan.GetVolumeCount() + scan.GetDriveCount() +
                  scan.GetPartitionCount(),
              0);
    EXPECT_FALSE(scan.GetAdapter(adapter, 0) || scan.FindAdapter(adapter, "x") ||
                 scan.FindAdapter(adapter, CPciAddress{0, 2, 0, 0}) || scan.GetHostAdapter(adapter, drives[0]) ||
                 scan.GetHostDrives(drives, adapter) || scan.GetDrive(drives[0], 0) ||
                 scan.GetPartition(partition, 0) || scan.GetVolume(volume, 0) || scan.ScanVolumes());
    t_SecondsBehind = 0;
    EXPECT_EQ(adapter.DeviceName, "own");
    EXPECT_EQ(drives.size(), 1U);
    EXPECT_EQ(trace.Count("(): Access timeout!"), 13);
    std::future<unsigned int> count = std::async(std::launch::async, [&] { return scan.GetAdapterCount(); });
    blocked.Release();
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(count.get(), 1U) << "a query with patience sees the whole list";
  });
}

TEST(SystemDeviceScan, AnExceptionEndsTheScanAndFreesTheGate) {
  RunTraced(SmallMachine(), 1, [](TraceCapture& trace) {
    CSystemDeviceScan scan;
    {
      const FakeIoctl system([](const std::string&, unsigned long request, void* argument) {
        const std::optional<int> answer = AnswerEthtool(request, argument);
        t_NoMemory = answer.has_value();
        return answer;
      });
      EXPECT_EQ(scan.ScanDevices(-1, true, 1000), -1);
    }
    EXPECT_TRUE(trace.Has("CSystemDeviceScan   : ERROR! EXCEPTION in ScanHardware()!"));
    EXPECT_EQ(trace.Count("START THREAD"), 0);
    EXPECT_EQ(scan.GetAdapterCount(), 0U);
    EXPECT_EQ(scan.RescanHardware(1000, nullptr), 0);
    EXPECT_EQ(scan.GetAdapterCount(), 1U);
  });
}

TEST(SystemDeviceScan, UpdateThreadFollowsScansCopiesAndTheEnd) {
  RunTraced(SmallMachine(), 3, [](TraceCapture& trace) {
    const auto started = [&trace] { return trace.Count("START THREAD WatchPartitions()"); };
    const auto ended = [&trace] { return trace.Count("EXIT THREAD WatchPartitions()"); };
    {
      CSystemDeviceScan scan;
      EXPECT_EQ(scan.RescanHardware(kTimeoutMs, nullptr), 0);
      EXPECT_EQ(trace.Count("CThread::SetThreadName"), 0) << "it was not alive";
      EXPECT_EQ(scan.ScanHardware(-1, true, kTimeoutMs, nullptr), 0);
      EXPECT_TRUE(
          trace.Has("CThread::SetThreadName: ThreadId = 0x00000000, DebugName = WatchPartitions, Qualifier = ()"));
      EXPECT_EQ(scan.StartUpdateThread(), 1);
      EXPECT_EQ(scan.RescanHardware(kTimeoutMs, nullptr), 0);
      EXPECT_EQ(trace.Count("CThread::SetThreadName"), 2) << "it was, once";
      EXPECT_EQ(scan.StopUpdateThread(kTimeoutMs) + scan.StopUpdateThread(kTimeoutMs), 2);
      EXPECT_EQ(ended(), started());

      CSystemDeviceScan copy(scan);
      CSystemDriveList drives;
      CSystemAdapter adapter;
      EXPECT_TRUE(copy.GetAdapter(adapter, 0));
      EXPECT_TRUE(scan.GetHostDrives(drives, adapter));
      EXPECT_FALSE(copy.GetHostDrives(drives, adapter)) << "drives are not copied";
      EXPECT_EQ(copy.GetNumberPciBusses(), 3U);
      EXPECT_EQ(scan.StopUpdateThread(1000) + trace.Count("CThread::SetThreadName"), 4) << "only the copy has a thread";

      EXPECT_EQ(scan.Terminate(2000), 1);
      EXPECT_EQ(copy.RescanHardware(kTimeoutMs, nullptr), 0);
      const int before = trace.Count("Scan system drives ...");
      std::filesystem::remove_all("/proc/bus");
      EXPECT_EQ(scan.ScanHardware(-1, true, kTimeoutMs, nullptr), 0);
      EXPECT_EQ(scan.GetAdapterCount(), 1U) << "terminated: no list is touched";
      EXPECT_EQ(trace.Count("Scan system drives ..."), before);
      EXPECT_EQ(trace.Count("CThread::SetThreadName"), 5) << "but the thread runs when asked for";
    }
    EXPECT_EQ(trace.Count("CLASS DESTROYED!"), 2);
    EXPECT_EQ(ended(), started());
    EXPECT_EQ(trace.Count("THREAD_RETURN: ## INFO: Thread = 0x"), started());
  });
}

TEST(SystemDeviceScan, OverlappingRescansKeepTheUpdateThread) {
  RunTraced(SmallMachine(), 1, [](TraceCapture& trace) {
    BlockedScan blocked;
    CSystemDeviceScan scan;
    scan.ScanHardware(CSystemDeviceScan::SCAN_UPDATE_THREAD, true, kTimeoutMs, nullptr);
    const auto rescan = [&scan] { return scan.RescanHardware(kTimeoutMs, nullptr); };
    std::future<int> first = std::async(std::launch::async, rescan);
    blocked.WaitUntilBlocked();  // and has stopped the thread
    std::future<int> second = std::async(std::launch::async, rescan);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // for the second to come to the gate
    blocked.Release();
    EXPECT_EQ(first.get() + second.get(), 0);
    EXPECT_EQ(trace.Count("CThread::SetThreadName"), 3);
  });
}

TEST(SystemDeviceScan, DrivesOfASilentHostAreLeftAloneAndAStopEndsTheirScan) {
  DriveMachine machine;
  const std::pair<const char*, const char*> disks[] = {
      {"0", "0:0:0:0/device/block/sda"}, {"0", "0:0:0:1/device/block/sdb"}, {"1", "1:0:0:2/device/block/sdc"}};
  for (int lun = 0; const auto& [host, name] : disks) {
    machine.List(("scsi" + std::string(host) + " Channel: 00 Id: 00 Lun: 0" + std::to_string(lun++)).c_str(), "V", "M",
                 "1", "Direct-Access");
    machine.MakeDirectory(std::string("/sys/class/scsi_device/") + name);
    machine.WriteFile("/dev/" + std::string(name).substr(21), "");
  }
  RunTraced(machine, 1, [](TraceCapture& trace) {
    std::string asked;
    std::atomic<bool> stop = false;
    const FakeIoctl device([&](const std::string& path, unsigned long, void*) -> std::optional<int> {
      asked += path + " ";
      if (path == "/dev/sda") t_SecondsBehind -= 50;
      stop = true;
      return -EIO;
    });
    CSystemDriveList drives;
    CSystemDrive::ScanSystemDrives(drives, false, false);
    EXPECT_EQ(asked, "/dev/sda /dev/sdc ");
    EXPECT_EQ(drives.size(), 3U) << "recorded without being asked";
    EXPECT_EQ(trace.Count("ScanScsiDrives : Host 0 timed out, its other drives are not asked"), 1);
    stop = false;
    CSystemDrive::ScanSystemDrives(drives, false, false, &stop);
    EXPECT_EQ(drives.size(), 4U);
  });
}

TEST(SystemDeviceScan, ATerminationThatCannotWaitLeavesAScanAlone) {
  RunTraced(SmallMachine(), 3, [](TraceCapture& trace) {
    BlockedScan blocked;
    auto scan = std::make_unique<CSystemDeviceScan>();
    scan->ScanHardware(CSystemDeviceScan::SCAN_UPDATE_THREAD, false, kTimeoutMs, nullptr);
    std::future<int> result = std::async(std::launch::async, [&] { return scan->ScanDevices(-1, true, kTimeoutMs); });
    blocked.WaitUntilBlocked();
    scan->StartUpdateThread();
    while (trace.Count("Scan system volumes ...") == 0)
      std::this_thread::yield();
    EXPECT_EQ(scan->StopUpdateThread(kTimeoutMs), 1) << "the thread waits for the gate, and lets go";
    EXPECT_EQ(scan->Terminate(10), 1);
    EXPECT_TRUE(trace.Has("CSystemDeviceScan   : WARNING! Pending calls not terminated within 0 seconds!"));
    EXPECT_EQ(scan->ScanHardware(0, false, 10, nullptr), -1) << "the gate is open, the lists are not";
    std::thread release([&] {
      while (trace.Count("CLASS DESTROYED!") == 0)
        std::this_thread::yield();
      blocked.Release();
    });
    t_SecondsBehind = 5;
    scan.reset();
    t_SecondsBehind = 0;
    EXPECT_EQ(result.get(), 0);
    release.join();
    EXPECT_EQ(trace.Count("Scan system drives ..."), 0) << "the scan saw the end coming";
    EXPECT_EQ(trace.Count("CThread::SetThreadName"), 2);
    EXPECT_EQ(trace.Count("START THREAD"), trace.Count("EXIT THREAD"));
  });
}

TEST(SystemDeviceScan, EverythingAtOnce) {
  SmallMachine().Run([] {
    CSystemDeviceScan first;
    EXPECT_EQ(first.ScanHardware(-1, true, kTimeoutMs, nullptr), 0);
    CSystemDeviceScan second(first);  // its own gate, the same process-wide tables
    std::vector<std::thread> threads;
    const auto repeat = [&threads](const std::function<void(CSystemDeviceScan&)>& body, CSystemDeviceScan& scan) {
      threads.emplace_back([body, &scan] {
        for (int round = 0; round < 20; ++round)
          body(scan);
      });
    };
    for (CSystemDeviceScan* scan : {&first, &second}) {
      repeat([](CSystemDeviceScan& each) { EXPECT_EQ(each.RescanHardware(kTimeoutMs, nullptr), 0); }, *scan);
      repeat(
          [](CSystemDeviceScan& each) {
            CSystemAdapter adapter;
            CSystemDriveList drives;
            EXPECT_TRUE(each.FindAdapter(adapter, CPciAddress{0, 2, 0, 0})) << "never a half-built list";
            each.GetHostDrives(drives, adapter);
            EXPECT_EQ(each.GetVolumeCount(), 1);
            EXPECT_EQ(each.GetNumberPciBusses(), 3U);
          },
          *scan);
      repeat(
          [](CSystemDeviceScan& each) {
            each.StartUpdateThread();
            each.StopUpdateThread(kTimeoutMs);
          },
          *scan);
    }
    repeat([](CSystemDeviceScan& each) { EXPECT_EQ(each.Terminate(kTimeoutMs), 1); }, first);
    for (std::thread& thread : threads)
      thread.join();
  });
}

}  // namespace
