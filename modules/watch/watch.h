#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "machine/look_settings.h"
#include "machine/machine_query.h"
#include "watch/flap_filter.h"

// Settings of the section [watch] of kModulesFile.
struct WatchSettings : LookSettings {
  static WatchSettings Read();
};

// The module: tells each change of the machine once, as a line of the trace and an entry of the journal. The hardware
// of the last look is kept in the registry, so what has changed while the machine was down is told at the next start.
// Beside the hardware it watches whether the network interfaces of hardware have a link, and whether each volume
// answers and has room (a volume with less than a twentieth left is "full"). One thread, which the destructor ends
// within 100 ms, whatever it is at.
class Watch {
 public:
  // Told of every change that is not damped; by default trace and journal.
  using Teller = std::function<void(const MachineChange& change, const std::string& text)>;

  explicit Watch(WatchSettings settings, Teller teller = Tell);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  void Start();

  // "drive sda (slot 3) is gone", "adapter 0000:02:00.0 (slot 4): lanes \"8\" => \"4\""
  static std::string Describe(const MachineChange& change);
  static void Tell(const MachineChange& change, const std::string& text);

 private:
  void Run();
  void LookAtHardware();
  void LookAtVolumes();
  void LookAtLinks();
  void TellChanges(const MachineRecords& before, const MachineRecords& after);
  bool WaitForStop();

  const WatchSettings m_Settings;
  const Teller m_Teller;
  MachineQuery m_Query;

  // Of the thread:
  MachineRecords m_Hardware, m_Volumes, m_Links;  // of the last look, empty: none yet
  FlapFilter m_Flaps;

  std::mutex m_Mutex;
  std::condition_variable m_Wake;
  bool m_IsStopping = false;  // guarded by m_Mutex
  std::thread m_Thread;
};

// The hardware of the last look in the registry, below HKEY_LOCAL_MACHINE\SOFTWARE\ravd\Machine, one value a record.
// Empty when there is none. A record of more than 1,000 bytes is not kept.
MachineRecords LoadLastMachine();
void SaveLastMachine(const MachineRecords& machine);
