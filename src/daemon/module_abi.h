#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "daemon/switch_interface.h"
#include "trace/debug.h"

// What a compiler has to make of the public headers for a module to fit the daemon. Include it in one source of a
// module or switch: options that change a layout (packing, short enumerations, another ABI) then fail to build instead
// of failing at run time. The order of the operations in the tables is recorded and checked by the daemon's own tests.

static_assert(sizeof(void*) == 8 && sizeof(long) == 8, "x86-64 with 64-bit pointers");

// One pointer to the table, no data.
static_assert(sizeof(ISwitch) == 8 && alignof(ISwitch) == 8 && std::is_polymorphic_v<ISwitch>);
static_assert(!std::has_virtual_destructor_v<ISwitch>, "a destructor in the table would move the slots");
static_assert(std::is_same_v<decltype(&ISwitch::LoadModules), bool (ISwitch::*)(const _ExtensionModuleLoaderConfig&)>);
static_assert(std::is_same_v<decltype(&ISwitch::UnloadModules), bool (ISwitch::*)(uint32_t)>);
static_assert(std::is_same_v<decltype(&ISwitch::StartModules), void (ISwitch::*)()>);
static_assert(std::is_same_v<decltype(&ISwitch::StopModules), void (ISwitch::*)()>);
static_assert(std::is_same_v<decltype(&ISwitch::NotifyEvent), void (ISwitch::*)(uint32_t, void*, void*)>);

static_assert(sizeof(_ExtensionModuleLoaderConfig) == 8 && alignof(_ExtensionModuleLoaderConfig) == 4);
static_assert(offsetof(_ExtensionModuleLoaderConfig, Flags) == 0);
static_assert(offsetof(_ExtensionModuleLoaderConfig, RunMode) == 4);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"  // both compilers lay out such classes by the same rules
static_assert(offsetof(CDebug, m_TraceLevel) == 8, "behind the pointer to the table");
static_assert(offsetof(CDebug, m_TraceLevelSaved) == 12);
static_assert(offsetof(CDebug, m_FileDebugLevel) == 16);
static_assert(offsetof(CDebug, m_TraceFlags) == 20);
static_assert(offsetof(CDebug, m_TraceActive) == 24);
#pragma GCC diagnostic pop
static_assert(sizeof(std::atomic<bool>) == 1 && std::atomic<bool>::is_always_lock_free);
static_assert(sizeof(std::atomic<uint32_t>) == 4 && std::atomic<uint32_t>::is_always_lock_free);
static_assert(std::is_polymorphic_v<CDebug> && std::has_virtual_destructor_v<CDebug>);
