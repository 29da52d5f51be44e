// The other one: it finds what the writer left in the tree that both share, and the writer's event.

#include "platform/event.h"
#include "registry/registry.h"

extern "C" __attribute__((visibility("default"))) bool Run() {
  CEvent written(false, true, "agent test");
  unsigned int number = 0;
  CRegistry registry;
  registry.Open("HKEY_USERS\\AgentTest", nullptr);
  return written.Wait(0, true) == kWaitDone && registry.QueryValue(&number, "Number") == CRegistry::kSuccess &&
         number == 4711;
}
