// One of two modules that know nothing of each other: it leaves a value in the registry and signals a named event.

#include "platform/event.h"
#include "registry/registry.h"
#include "trace/debug.h"

namespace {

CEvent written(false, true, "agent test");

}  // namespace

extern "C" __attribute__((visibility("default"))) bool Run() {
  TRACE(2, "\nWriter              : %s %d", "arguments reach the table, however many:", 7);
  CRegistry registry;
  return registry.Open("", nullptr) == CRegistry::kSuccess &&
         registry.CreateKey(nullptr, "HKEY_USERS\\AgentTest") == CRegistry::kSuccess &&
         registry.SetValue("Number", 4711U) == CRegistry::kSuccess && written.Set();
}
