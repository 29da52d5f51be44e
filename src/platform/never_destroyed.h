#pragma once

// Storage of a process-wide object that no static destructor tears down.
//
//   constinit NeverDestroyed<CStrMap> g_Names;
//
// Constant-initialised where T can be, so static objects of any translation unit may use it from their constructors
// and from their destructors, in whatever order those run. What it still owns at process exit stays reachable.
template <class T>
union NeverDestroyed {
  constexpr NeverDestroyed() : object() {}
  ~NeverDestroyed() {}
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T object;
};
