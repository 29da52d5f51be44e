#include "switch/module_thread.h"

#include <cxxabi.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <utility>

struct ModuleThread::Mailbox {
  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by the mutex:
  std::function<bool()> function;  // to be called; empty: none
  std::function<void()> late;
  bool isBusy = false;     // from the order to the answer
  bool isGivenUp = false;  // nobody waits for the answer
  bool isEnding = false;
  Result result = Result::kDone;
  std::string reason;
};

namespace {

ModuleThread::Result CallSafely(const std::function<bool()>& function, std::string& reason) {
  try {
    return function() ? ModuleThread::Result::kDone : ModuleThread::Result::kRefused;
  } catch (const std::exception& exception) {
    reason = std::string("it threw: ") + exception.what();
  } catch (const abi::__forced_unwind&) {
    throw;  // of a cancelled thread
  } catch (...) {
    reason = "it threw what is no std::exception";
  }
  return ModuleThread::Result::kThrew;
}

}  // namespace

ModuleThread::ModuleThread() : m_Mailbox(std::make_shared<Mailbox>()) {
  try {
    m_Thread = std::thread(Run, m_Mailbox);
  } catch (const std::system_error& error) {
    m_IsLost = true;
    m_Reason = std::string("there is no thread for it: ") + error.what();
  }
}

ModuleThread::~ModuleThread() {
  if (!m_Thread.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(m_Mailbox->mutex);
    m_Mailbox->isEnding = true;
  }
  m_Mailbox->changed.notify_all();
  m_Thread.join();
}

ModuleThread::Result ModuleThread::Call(const std::function<bool()>& function, uint32_t timeoutMs,
                                        const std::function<void()>& late) {
  if (m_IsLost) return Result::kLost;
  std::unique_lock<std::mutex> lock(m_Mailbox->mutex);
  m_Mailbox->function = function;
  m_Mailbox->late = late;
  m_Mailbox->isBusy = true;
  m_Mailbox->changed.notify_all();
  if (m_Mailbox->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !m_Mailbox->isBusy; })) {
    m_Reason = m_Mailbox->reason;
    return m_Mailbox->result;
  }
  m_Mailbox->isGivenUp = m_IsLost = true;
  m_Reason = "it did not return within " + std::to_string(timeoutMs) + " ms";
  m_Thread.detach();
  return Result::kLost;
}

void ModuleThread::Run(const std::shared_ptr<Mailbox>& mailbox) {
  std::unique_lock<std::mutex> lock(mailbox->mutex);
  for (;;) {
    mailbox->changed.wait(lock, [&] { return mailbox->function || mailbox->isEnding; });
    if (!mailbox->function) return;
    const std::function<bool()> function = std::exchange(mailbox->function, nullptr);
    lock.unlock();
    std::string reason;
    const Result result = CallSafely(function, reason);
    lock.lock();
    mailbox->result = result;
    mailbox->reason = reason;
    mailbox->isBusy = false;
    mailbox->changed.notify_all();
    if (!mailbox->isGivenUp) continue;
    const std::function<void()> late = mailbox->late;
    lock.unlock();
    if (late && result == Result::kDone) CallSafely([&] { return late(), true; }, reason);
    return;
  }
}
