#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "machine/look_settings.h"
#include "machine/machine_query.h"
#include "metrics/figures.h"
#include "metrics/http_server.h"

// Settings of the section [metrics] of kModulesFile, with what counts where nothing is said.
struct MetricsSettings : LookSettings {
  std::string textFile;          // TextFile, a path, or "none": kTextFile where its directory exists
  std::string listen;            // Listen, as of HttpServer, or "none": kListen where there is no text file
  bool isRemoteAllowed = false;  // AllowRemote: others than this machine may reach Listen

  static constexpr const char* kTextFile = "/var/lib/prometheus/node-exporter/ravd.prom";
  static constexpr const char* kListen = "127.0.0.1:9469";

  static MetricsSettings Read();
};

// The module: takes the figures on a timer, looks at the hardware now and then, and publishes the page. Two threads of
// its own and one of the server; the destructor ends all of them within 100 ms, whatever they are at, and removes the
// text file, whose figures would be read for ever.
class Metrics {
 public:
  explicit Metrics(MetricsSettings settings);
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  // False with a trace line when there is neither a text file nor a server.
  bool Start();
  // Where the server listens, "" without one.
  const std::string& Where() const { return m_Server.Where(); }

 private:
  void Sample();          // a thread
  void LookAtHardware();  // a thread
  bool ScanHardware();
  bool ScanVolumes();
  void CountChanges(const std::vector<MachineChange>& changes);
  void WriteTextFile(const std::string& page);
  bool WaitForStop(unsigned int seconds);  // true when it came

  const MetricsSettings m_Settings;
  HttpServer m_Server;
  MachineQuery m_Query;  // of the thread that looks at the hardware
  bool m_HasWarned = false;

  std::mutex m_Mutex;
  std::condition_variable m_Wake;
  // Guarded by m_Mutex:
  bool m_IsStopping = false;
  bool m_HasNews = true;  // the machine is not what the text file says
  Figures m_Figures;      // what the other thread found, and the counts

  std::thread m_SampleThread;
  std::thread m_HardwareThread;
};
