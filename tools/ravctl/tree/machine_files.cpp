#include "ravctl/tree/machine_files.h"

#include <unistd.h>

#include <array>

#include "ravctl/answer/output.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/daemon/process.h"
#include "ravctl/tree/bundle_format.h"
#include "ravctl/tree/machine_answers.h"
#include "ravctl/tree/physical_memory.h"

namespace ravctl {

namespace {

struct FileRow {
  const char* pattern;
  CaptureKind kind = CaptureKind::kContent;
  uint64_t limit = kLargestFile;
};

// The library reads no more of a configuration space than its header.
constexpr uint64_t kPciHeader = 64;
constexpr uint64_t kMapperKind = 6;         // "mpath-" or another kind; what follows is an identity
constexpr uint64_t kEsxTable = 128 * 1024;  // a 32-bit entry point names 64 KiB at most

constexpr auto kFiles = std::to_array<FileRow>({
    // PCI functions, resources and legacy devices
    {"/proc/bus/pci/devices"},
    {"/proc/bus/pci/*/??.?", CaptureKind::kContent, kPciHeader},
    {"/proc/vmware/pci"},
    {"/proc/interrupts"},
    {"/proc/dma"},
    {"/proc/ioports"},
    {"/proc/iomem"},
    {"/sys/bus/pci/devices/*/config", CaptureKind::kContent, kPciHeader},
    {"/sys/bus/pci/devices/*/vendor"},
    {"/sys/bus/pci/devices/*/device"},
    {"/sys/bus/pci/devices/*/class"},
    {"/sys/bus/pci/devices/*/revision"},
    {"/sys/bus/pci/devices/*/subsystem_vendor"},
    {"/sys/bus/pci/devices/*/subsystem_device"},
    {"/sys/bus/pci/devices/*/irq"},
    {"/sys/bus/pci/devices/*/resource"},
    {"/sys/bus/pci/devices/*/driver", CaptureKind::kName},
    {"/sys/bus/pci/devices/*/host*/fc_host*", CaptureKind::kName},
    {"/sys/bus/pci/devices/*/host*/fc_host/host*", CaptureKind::kName},
    {"/sys/class/fc_host/*", CaptureKind::kName},
    {"/sys/class/fc_host/*/port_name"},
    {"/sys/class/fc_host/*/node_name"},
    // firmware; the physical memory is captured by ranges
    {"/sys/firmware/dmi/tables/smbios_entry_point"},
    {"/sys/firmware/dmi/tables/DMI"},
    {"/sys/firmware/efi/systab"},
    {"/proc/efi/systab"},
    {"/vmfs/devices/char/mem/smbios", CaptureKind::kContent, kEsxTable},
    // drives
    {"/proc/scsi/scsi"},
    {"/sys/block/*", CaptureKind::kName},
    {"/sys/block/*/device", CaptureKind::kName},
    {"/sys/block/*/device/vendor"},
    {"/sys/block/*/device/model"},
    {"/sys/block/*/device/name"},
    {"/sys/block/*/device/rev"},
    {"/sys/block/*/device/firmware_rev"},
    {"/sys/block/*/device/serial"},
    {"/sys/block/*/device/type"},
    {"/sys/block/*/device/vpd_pg80"},
    {"/sys/block/*/device/nvme*", CaptureKind::kName},
    {"/sys/block/*/device/device/vendor"},
    {"/sys/block/*/serial"},
    {"/sys/block/*/removable"},
    {"/sys/block/*/hidden"},
    {"/sys/block/*/dev"},
    {"/sys/class/block/*", CaptureKind::kName},
    {"/sys/class/block/*/size"},
    {"/sys/class/block/*/partition"},
    {"/sys/class/block/*/slaves/*", CaptureKind::kName},
    {"/sys/class/block/*/dm/name"},
    {"/sys/class/block/*/dm/uuid", CaptureKind::kContent, kMapperKind},
    {"/run/udev/data/b*"},
    {"/sys/class/scsi_device/*", CaptureKind::kName},
    {"/sys/class/scsi_device/*/device", CaptureKind::kName},
    {"/sys/class/scsi_device/*/device/block/*", CaptureKind::kName},
    {"/sys/class/scsi_device/*/device/*block*:*", CaptureKind::kName},
    {"/sys/class/scsi_device/*/device/tape", CaptureKind::kName},
    {"/sys/class/scsi_generic/*", CaptureKind::kName},
    {"/sys/class/scsi_generic/*/device", CaptureKind::kName},
    {"/sys/devices/mpdx/*/mpdh_path_0"},
    {"/proc/fusion/fct*/bus_id"},
    {"/proc/fusion/fct*/nand_dev/bus_id"},
    {"/proc/fusion/fct*/channels/0/client"},
    {"/proc/fusion/fct*/nand_dev/channels/0/client"},
    {"/proc/fusion/fct*/nand_dev/channels/0", CaptureKind::kName},
    {"/proc/fusion/fct*/iodrive/board_info"},
    {"/proc/fusion/iodrive/fct*", CaptureKind::kName},
    {"/proc/fusion/iodrive/fct*/board_info"},
    // volumes
    {"/etc/mtab"},
    {"/etc/fstab"},
    {"/vmfs/*:*", CaptureKind::kName},
    // network interfaces and performance
    {"/sys/class/net/*", CaptureKind::kName},
    {"/sys/class/net/*/address"},
    {"/sys/class/net/*/device", CaptureKind::kName},
    {"/sys/class/net/*/mtu"},
    {"/sys/class/net/*/dev_port"},
    {"/sys/class/net/*/device/irq"},
    {"/sys/class/net/*/driver", CaptureKind::kName},
    {"/proc/net/dev"},
    {"/proc/stat"},
    {"/proc/meminfo"},
    {"/proc/sys/kernel/osrelease"},
    // configuration
    {"/etc/pelrix", CaptureKind::kName},
    {"/etc/pelrix/registry*"},
    {"/etc/pelrix/*.ini"},
    {"/etc/pelrix/RunLevel"},
    {"/etc/norrow/QuennetSuite/TraceConfig", CaptureKind::kName},
    {"/etc/norrow/QuennetSuite/TraceConfig/*.ini*"},
    {"/etc/default/ravd"},
    {"/etc/sysconfig/ravd"},
    // the daemon
    {kPidFile},
    {"/run/ravd-modules.ini"},
    {"/var/lock/ravd.lock"},
    {"/var/run", CaptureKind::kName},
    {"/var/log/pelrix", CaptureKind::kName},
});

// The variables that the trace looks at; an environment may hold anything else.
bool IsTraceVariable(std::string_view variable) {
  return variable.starts_with("QN_") || variable.starts_with("TraceFileLimit=");
}

void CaptureEnvironment(const std::string& process, Capture& capture) {
  Capture whole;
  whole.Add(process + "/environ", CaptureKind::kContent, kLargestFile);
  for (const Uncaptured& missing : whole.Missing())
    capture.AddUncaptured(missing.path, missing.reason, missing.needsRoot);
  for (CapturedEntry& entry : whole.Entries()) {
    std::string kept;
    for (const std::string& variable : SplitList(entry.content, '\0')) {
      if (IsTraceVariable(variable)) kept += variable + '\0';
    }
    entry.content = kept;
    entry.size = kept.size();
    capture.AddEntry(std::move(entry));
  }
}

void CaptureDaemon(Capture& capture) {
  std::optional<DaemonProcess> daemon;
  try {
    daemon = FindDaemon();
  } catch (const CommandError&) {
    return;  // the PID file stands among what could not be read
  }
  if (!daemon) return;
  const std::string process = "/proc/" + std::to_string(daemon->pid);
  for (const char* name : {"/comm", "/stat", "/status", "/maps"})
    capture.Add(process + name, CaptureKind::kContent, kLargestFile);
  capture.Add(process + "/exe", CaptureKind::kName, kLargestFile);
  CaptureEnvironment(process, capture);
}

// How the kept runs ended is told without the traces, too.
void CaptureTraces(const TraceChoice& traces, Capture& capture) {
  for (const std::string& run : traces.keptRuns) {
    capture.Add(run + "/exit", CaptureKind::kOwnContent, kLargestFile);
    if (traces.isWanted) capture.AddMatching(run + "/log.*", CaptureKind::kOwnContent, kLargestFile);
  }
  if (!traces.isWanted) return;
  capture.AddMatching("/var/log/pelrix/log.*", CaptureKind::kOwnContent, kLargestFile);
  capture.AddMatching(traces.directory + "/log.*", CaptureKind::kOwnContent, kLargestFile);
}

// The zone of the times in traces, and the name of the system. The files themselves: what their usual links lead to is
// part of /usr, which a tree has from the machine that shows it.
void CaptureLinkedFiles(Capture& capture) {
  for (const char* path : {"/etc/localtime", "/etc/os-release"}) {
    std::string content;
    if (ReadFileInto(path, content) == 0) capture.AddText(path, std::move(content));
  }
}

// The kernel hides the addresses in them instead of refusing to show them.
void NoteHiddenAddresses(Capture& capture) {
  if (::geteuid() == 0) return;
  for (const char* path : {"/proc/iomem", "/proc/ioports"})
    capture.AddUncaptured(path, "its addresses are shown to root alone", true);
}

}  // namespace

void CaptureMachine(const TraceChoice& traces, Capture& capture) {
  Progress progress("capturing", kFiles.size() + 1);
  unsigned long long done = 0;
  for (const FileRow& row : kFiles) {
    capture.AddMatching(row.pattern, row.kind, row.limit);
    progress.Update(++done);
  }
  NoteHiddenAddresses(capture);
  CaptureLinkedFiles(capture);
  CapturePhysicalMemory(capture);
  CaptureDaemon(capture);
  CaptureTraces(traces, capture);
  CaptureAnswers(capture);
}

const std::vector<std::string>& LiveOnlyAnswers() {
  static const std::vector<std::string> answers = {
      "load and rates of traffic at other times than that of the capture",
      "output of lspci, which is run anew on the captured functions; of vim-cmd and vmkfstools (VMware hosts)",
  };
  return answers;
}

}  // namespace ravctl
