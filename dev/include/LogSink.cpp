// The host's log callback. Its calls are serialised by one mutex, which also makes replacing it
// wait for a running call: a callback is never called after the host took it back.
#include "LogSink.h"

#include "UnicodePaths.h"

#include <atomic>
#include <mutex>
#include <string>

namespace measurement {

namespace {

std::mutex callbackMutex;
dataExchangeLogCallback callback = nullptr;
void* callbackContext = nullptr;
// Lets the default output go on without the mutex while no host takes the lines.
std::atomic<bool> callbackSet{false};
// The thread running the callback holds the mutex: what it logs meanwhile, or a callback it
// sets, must not wait for it.
thread_local bool insideCallback = false;

struct InsideCallback {
    InsideCallback() { insideCallback = true; }
    ~InsideCallback() { insideCallback = false; }
    InsideCallback(const InsideCallback&) = delete;
    InsideCallback& operator=(const InsideCallback&) = delete;
};

} // namespace

void LogSink::set(dataExchangeLogCallback newCallback, void* context) {
    std::unique_lock<std::mutex> lock(callbackMutex, std::defer_lock);
    if (!insideCallback)
        lock.lock();
    callback = newCallback;
    callbackContext = context;
    callbackSet = newCallback != nullptr;
}

bool LogSink::deliver(dataExchangeLogLevel level, const char* line) {
    if (!callbackSet || insideCallback)
        return false;
    const std::string utf8 = UnicodePaths::fromSystem(line);
    const std::lock_guard<std::mutex> lock(callbackMutex);
    if (callback == nullptr)
        return false;
    const InsideCallback inside;
    callback(level, utf8.c_str(), callbackContext);
    return true;
}

} // namespace measurement
