// Every command that there is: ravctl A B is commands/A/B.cpp.

#include "ravctl/commands/all_commands.h"

#include "ravctl/commands/bundle.h"
#include "ravctl/commands/daemon/group.h"
#include "ravctl/commands/doctor.h"
#include "ravctl/commands/ini/group.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/commands/module/group.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/commands/pci.h"
#include "ravctl/commands/perf.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/commands/report.h"
#include "ravctl/commands/schema.h"
#include "ravctl/commands/slots.h"
#include "ravctl/commands/smbios/group.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/shell_texts.h"

namespace ravctl {

namespace {

void AddTraceGroup(Command& root) {
  Command& trace = root.AddGroup("trace", "Traces of the daemon and of other applications of the library");
  AddTraceList(trace);
  AddTraceShow(trace);
  AddTraceFollow(trace);
  AddTraceHeader(trace);
  AddTraceStats(trace);
  AddTraceVerify(trace);
  AddTraceConfig(trace);
  AddTraceToggle(trace);
  AddTraceLevel(trace);
}

void AddModuleGroup(Command& root) {
  Command& module = root.AddGroup("module", "The module switch library that the daemon loads, and its modules");
  AddModuleList(module);
  AddModuleCheck(module);
  AddModuleRun(module);
}

void AddInventoryGroup(Command& root) {
  Command& inventory = AddInventory(root);
  AddInventoryAdapters(inventory);
  AddInventoryDrives(inventory);
  AddInventoryVolumes(inventory);
  AddInventoryDiff(inventory);
  AddInventoryWatch(inventory);
}

void AddSmbiosGroup(Command& root) {
  Command& smbios = root.AddGroup("smbios", "The firmware's own description of the machine (DMTF DSP0134)");
  AddSmbiosList(smbios);
  AddSmbiosShow(smbios);
  AddSmbiosDump(smbios);
  AddSmbiosVerify(smbios);
}

void AddNetGroup(Command& root) {
  Command& net = root.AddGroup("net", "Network interfaces, their traffic and routes");
  AddNetList(net);
  AddNetRoutes(net);
  AddNetHostIp(net);
}

void AddRegistryGroup(Command& root) {
  Command& registry = root.AddGroup("registry", "The registry: keys with typed values");
  AddRegistryGet(registry);
  AddRegistryList(registry);
  AddRegistryTree(registry);
  AddRegistryFind(registry);
  AddRegistrySet(registry);
  AddRegistryDel(registry);
  AddRegistryExport(registry);
  AddRegistryImport(registry);
  AddRegistryDiff(registry);
  AddRegistryVerify(registry);
  AddRegistryRecover(registry);
}

void AddIniGroup(Command& root) {
  Command& ini = root.AddGroup("ini", "Read, check and change INI files as the library does");
  AddIniGet(ini);
  AddIniSet(ini);
  AddIniDel(ini);
  AddIniSections(ini);
  AddIniCheck(ini);
}

}  // namespace

void AddAllCommands(Command& root) {
  AddDaemonStatus(root.AddGroup("daemon", "The service daemon"));
  AddTraceGroup(root);
  AddModuleGroup(root);
  AddInventoryGroup(root);
  AddPci(root);
  AddSlots(root);
  AddSmbiosGroup(root);
  AddPerf(root);
  AddNetGroup(root);
  AddRegistryGroup(root);
  AddIniGroup(root);
  AddBundle(root);
  AddDoctor(root);
  AddReport(root);
  AddSchema(root);
  AddShellTexts(root);
}

}  // namespace ravctl
