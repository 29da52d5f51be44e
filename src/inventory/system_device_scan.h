#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "inventory/system_adapter_list.h"
#include "inventory/system_drive.h"
#include "inventory/system_partition.h"
#include "inventory/system_volume.h"
#include "pci/pci_config_list.h"
#include "platform/critical_section.h"
#include "platform/event.h"
#include "platform/export.h"
#include "platform/thread.h"

// Options of a scan, without a definition. Nothing reads them yet; a client may pass null.
struct _ScanOptions;

// Takes and holds a snapshot of the machine's hardware: the PCI functions, the adapters, the drives and the mounted
// volumes. A background thread can keep the volumes fresh, once a minute.
//
// Threads: any thread may call any operation but the assignment, and but the single steps, which are for ScanHardware.
// Scans and queries hold a gate, so that a query never sees a half-built list; the PCI slot queries use the lock of the
// PCI list instead and wait while that is rebuilt. The gate is not re-entrant. Scans of several objects take turns
// where they use what the whole process shares (mount table, bus tables).
// Stop: Terminate ends a volume scan at the next silent file system and a drive scan at the next drive.
// Time: a query waits up to 90 seconds for the gate; a scan or Terminate as long as its caller says. One that gets no
// gate traces a warning and gives false, 0 or -1 with outputs and lists untouched.
// Failures: results only. ScanHardware catches every exception; a query may throw std::bad_alloc and leaves the gate
// free.
// Destruction: ends the update thread and waits for the calls that are under way. None may be made from then on.
class RAVD_EXPORT CSystemDeviceScan {
 public:
  // Flag of a scan:
  static constexpr int SCAN_ADAPTERS = 0x1;       // PCI functions and adapters
  static constexpr int SCAN_DRIVES = 0x2;         // drives
  static constexpr int SCAN_UPDATE_THREAD = 0x4;  // the update thread may run
  static constexpr int SCAN_VOLUMES = 0x8;        // mounted volumes

  // Empty lists; nothing is read before the first scan.
  CSystemDeviceScan();
  // Lists of its own; see ClassCopy:
  CSystemDeviceScan(const CSystemDeviceScan& other);
  CSystemDeviceScan& operator=(const CSystemDeviceScan& other);
  // See Destruction.
  ~CSystemDeviceScan();

  // Copies adapters, volumes, PCI functions and the scan flags; drives stay what they were. Gate, thread and locks are
  // each object's own: the update thread of this object is stopped, and started when the flags allow it. Takes no gate,
  // so neither object may be in use by another thread, the update thread of the other object excepted.
  void ClassCopy(const CSystemDeviceScan& other);

  // Scans what the flags ask for, -1 being everything, in the order PCI functions, adapters, drives, volumes; lists of
  // what they do not ask for stay. A running update thread is stopped, and started at the end if the caller asks for it
  // and the flags allow it. 0 when done; -1 when the time is up or a step threw, and the lists then hold what the steps
  // left. After Terminate nothing is scanned, which counts as done:
  int ScanHardware(int flags, bool startUpdateThread, unsigned int timeoutMs, _ScanOptions* options);
  int ScanDevices(int flags, bool startUpdateThread, unsigned int timeoutMs);
  // Everything; the update thread goes on when it was alive as the scan got the gate.
  int RescanHardware(unsigned int timeoutMs, _ScanOptions* options);

  // How many adapters the last scan found.
  unsigned int GetAdapterCount();
  // Copies one of them, counted from 0 in the order of the scan. Another scan may have come since they were counted:
  // false, and adapter unchanged, past the end.
  bool GetAdapter(CSystemAdapter& adapter, int index);
  // Copies the first one with that device ID or at that address; false, and adapter unchanged, without one. Upper and
  // lower case of the ID are the same; null and "" find nothing:
  bool FindAdapter(CSystemAdapter& adapter, const char* deviceId);
  bool FindAdapter(CSystemAdapter& adapter, const CPciAddress& address);
  // Copies the adapter that the drive is attached to; false, and adapter unchanged, when it is not known.
  bool GetHostAdapter(CSystemAdapter& adapter, const CSystemDrive& drive);
  // The drives attached to the adapter, in scan order. The list is emptied once the gate is held. True when there is
  // one.
  bool GetHostDrives(CSystemDriveList& drives, CSystemAdapter& adapter);
  // Always false: no relation between adapters is held.
  bool GetParentAdapter(const CSystemAdapter& adapter, CSystemAdapter& parent);

  // Drives are reached through GetHostDrives and partitions not at all. These find nothing, and leave their outputs:
  int GetDriveCount();
  bool GetDrive(CSystemDrive& drive, int index);
  int GetPartitionCount();
  bool GetPartition(CSystemPartition& partition, int index);
  int GetDiskPartitions(CSystemPartitionList& partitions, CSystemDrive& drive);

  // Scans the volumes anew and tells how many there are.
  int GetVolumeCount();
  // Copies one of the volumes of the last scan, counted from 0. Another scan, that of the update thread included, may
  // have come since they were counted: false, and volume unchanged, past the end.
  bool GetVolume(CSystemVolume& volume, int index);
  // Scans the volumes anew. True when that was done, whatever was found.
  bool ScanVolumes();

  // Copies the PCI functions of the last scan. True when there is one. No lock of the copy is taken.
  bool GetPciSlotConfig(CPciConfigList& list);
  // Copies the function at that address; false, and data unchanged, without one.
  bool GetPciSlotData(CPciSlotData& data, const CPciAddress& address);
  // Copies the first function in address order with these IDs. 0xFFFF as subsystem or subsystem vendor matches any.
  // False, and data unchanged, without one.
  bool GetPciSlotData(CPciSlotData& data, unsigned short deviceId, unsigned short vendorId, unsigned short subDeviceId,
                      unsigned short subVendorId);
  // The highest bus number plus one; 0 without functions.
  unsigned int GetNumberPciBusses();

  // Always 1. Does nothing when the flags of the last scan forbid the thread or it is alive.
  int StartUpdateThread();
  // Wakes the thread and waits for its end, which a volume scan under way can delay beyond the time given. 1 when it
  // has ended or did not run.
  int StopUpdateThread(unsigned int timeoutMs);
  // Stops the update thread, lets pending calls end and makes every later scan skip its steps. The gate is free
  // afterwards even when the time is up; the lists stay protected from whoever comes in before the pending call has
  // ended. Result of giving the gate back.
  int Terminate(unsigned int timeoutMs);

  // The steps of ScanHardware, which holds the gate for them.

  // From the PCI functions that are there. True when an adapter was found.
  bool ScanSystemAdapters();
  // True, whatever was found:
  bool ScanSystemDrives();
  bool ScanSystemVolumes();
  // Finds nothing; true.
  bool ScanSystemPartitions();

 private:
  // An auto-reset event, held like a lock that can be waited for with a limit.
  class EventHold {
   public:
    explicit EventHold(const CEvent& event) : m_Event(event) {}
    ~EventHold() { GiveBack(); }
    EventHold(const EventHold&) = delete;
    EventHold& operator=(const EventHold&) = delete;

    bool Take(unsigned int timeoutMs) { return m_IsHeld = m_Event.Wait(timeoutMs, true) == kWaitDone; }
    bool IsHeld() const { return m_IsHeld; }
    void GiveBack() {
      if (std::exchange(m_IsHeld, false)) m_Event.Set();
    }

   private:
    const CEvent& m_Event;
    bool m_IsHeld = false;
  };

  // One call's turn at the lists: through the gate, then the lock of the lists, and both given back when the call ends
  // in whatever way. False when the time was up. Lives on the stack of the call; the object outlives it.
  // The gate alone would not do, as Terminate opens it when its time is up, whoever holds it.
  class Turn {
   public:
    enum Caller { kClient, kUpdateThread };  // the destructor waits for the one, and joins the other

    Turn(CSystemDeviceScan& scan, unsigned int timeoutMs, Caller caller = kClient);
    explicit operator bool() const { return m_Lists.IsHeld(); }
    void GiveBack();

   private:
    std::shared_lock<std::shared_mutex> m_Call;
    EventHold m_Gate;
    EventHold m_Lists;
  };

  static constexpr unsigned int kQueryTimeoutMs = 90'000;

  static void* LaunchAsThread_WatchPartitions(void* scan);
  void WatchPartitions();
  void UpdateVolumes();
  // The update thread is started when it is said so; where nothing is said, when it was alive.
  int Scan(int flags, std::optional<bool> startUpdateThread, unsigned int timeoutMs);
  void CopyLists(const CSystemDeviceScan& other);
  void RunSteps(int flags);
  void ScanPciFunctions();
  void AddToDriveMap(CSystemDrive& drive);
  bool IsUpdateThreadAlive() const;
  void ScanVolumesUnlessStopped();

  // Guarded by m_ListsFree, behind the gate.
  CSystemAdapterList m_Adapters;
  std::vector<CSystemDrive> m_Drives;
  std::vector<CSystemVolume> m_Volumes;
  CPciConfigList m_PciConfigList;                               // guarded by its own lock
  std::map<std::string, std::vector<CSystemDrive>> m_DriveMap;  // by class GUID text; "" for a drive without ID

  CEvent m_ScanGate{true, false};
  CThread m_UpdateThread;  // guarded by m_ThreadLock
  CEvent m_ExitEvent{false, true};
  std::atomic<int32_t> m_ScanFlags = 0;  // of the last ScanHardware
  std::atomic<bool> m_ExitRequested = false;
  std::atomic<bool> m_Terminating = false;  // never cleared

  // Order of locks: m_Calls, gate, m_ListsFree, m_ThreadLock; that of the PCI list stands before those of the shared
  // tables.
  mutable CCriticalSection m_ThreadLock;
  CEvent m_ListsFree{true, false};  // taken by the call that has the turn, and while a copy is made
  std::shared_mutex m_Calls;        // shared by the calls that want a turn; the destructor waits for it alone
};
