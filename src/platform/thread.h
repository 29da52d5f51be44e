#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>

#include "platform/export.h"

struct CThreadRecord;

// Handle of one worker thread.
//
// A joinable thread (Waitable) is never cancelled: its owner makes it leave its loop, usually through a CEvent, and
// Kill or WaitForTermination joins it. A detached thread is cancelled by Kill and ends on its own time at its next
// cancellation point, so what it works on must outlive it.
//
// Threads: an object is not synchronised; one controlling thread starts and ends the worker.
// Ownership: by default destruction and the next Start end a thread that is still held, as Kill does, and so may block
// until a joinable worker returns. With SetKillAliveThread(false) they let it go instead: it runs on, detached.
// A thread identifier that was joined, or whose detached thread has ended, is never used again, though the system gives
// it to new threads.
// Failure: false, with a trace line; nothing is thrown.
class RAVD_EXPORT CThread {
 public:
  // What a thread runs. Its result shows in the trace when the thread is joined, and nowhere else.
  using Function = void* (*)(void*);

  // No thread yet.
  CThread() = default;
  // See Ownership.
  ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  // Starts function(argument) at once, with the default stack: suspend and stackSize show in the trace only. A priority
  // other than 0 asks for SCHED_RR, which takes effect only where the system does not inherit the creator's scheduling.
  // False when the thread could not be made; none is held then.
  bool Start(Function function, void* argument, unsigned long priority, bool suspend, uint32_t stackSize,
             unsigned long unused, bool waitable);

  // Ends the held thread: joins a joinable one, without limit; asks a detached one to stop. False when no thread is
  // held, when the join failed (the thread stays held) and when the request was refused. The argument is ignored.
  bool Kill(uint32_t unused = 0);

  // Joins the held thread without limit, whatever timeoutMs says. True also when no thread is held; false for a
  // detached thread, at once, and when the join failed.
  bool WaitForTermination(uint32_t timeoutMs);

  // Whether a thread is held and still runs.
  bool IsAlive() const;

  // For traces; 0 when no thread is held.
  pthread_t GetHandle() const { return handle; }

  // What destruction and the next Start do with a thread that is still held: true, as at first, ends it, false lets it
  // go.
  void SetKillAliveThread(bool on) { KillAliveThread = on; }

 private:
  bool CreateThread(const pthread_attr_t& attributes, Function function, void* argument);
  bool Join(const char* operation);  // for the trace
  bool CancelDetached();
  void LetGo();
  unsigned int TraceId() const { return static_cast<unsigned int>(handle); }

  pthread_t handle = 0;  // 0 = no thread
  bool KillAliveThread = true;
  bool Waitable = false;
  std::shared_ptr<CThreadRecord> m_Record;  // shared with the running thread; null = no thread
};
