// The object behind a handle: application wrapper, options, error list and the option values.
#pragma once

#include "api/CoreAppWrapper.h"
#include "dataExchangeExt.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace measurement::dataExchange {
class dataExchangeOptionInternal;
}

struct dataExchangeLibraryImp {
    // Result of every option operation and value function.
    enum AccessStatus {
        Ok = 0,
        WrongType = 1,
        Unimplemented = 2,
        NoValue = 10,
        WriteOnly = 11,
        ReadOnly = 12,
        InvalidValue = 13,
        UnhandledValue = 15
    };

    using OptionMap = std::map<std::string, measurement::dataExchange::dataExchangeOptionInternal*>;

    dataExchangeLibraryImp() = default;
    virtual ~dataExchangeLibraryImp();
    dataExchangeLibraryImp(const dataExchangeLibraryImp&) = delete;
    dataExchangeLibraryImp& operator=(const dataExchangeLibraryImp&) = delete;

    // The error list is a report channel: conversions that only read the handle still add to it.
    void appendError(std::string message) const;
    // Moves every message, each followed by "\n", into text; true when there was any.
    bool takeErrors(std::string& text);
    void clearErrors() { errors.clear(); }

    // The option exports' shared paths (defined beside them).
    template <typename T>
    using OptionGetter =
        AccessStatus (measurement::dataExchange::dataExchangeOptionInternal::*)(T&) const;
    template <typename T>
    using OptionSetter =
        AccessStatus (measurement::dataExchange::dataExchangeOptionInternal::*)(const T&, bool&);
    int32_t lookupOption(const std::string& name,
                         measurement::dataExchange::dataExchangeOptionInternal*& option);
    template <typename T>
    int32_t readOption(measurement::dataExchange::dataExchangeOptionInternal& option,
                       uint32_t which, OptionGetter<T> current, OptionGetter<T> minimum,
                       OptionGetter<T> maximum, OptionGetter<T> defaultValue, T* value);
    template <typename T>
    int32_t writeOption(measurement::dataExchange::dataExchangeOptionInternal& option,
                        OptionSetter<T> setter, const T& value);

    measurement::dataExchange::CoreAppWrapper application;
    bool initialised = false;
    OptionMap options;
    mutable std::deque<std::string> errors;

    // Option values, read and written by the catalogue's value functions.
    std::atomic<uint64_t> serialNumber{0};
    std::atomic<int32_t> deviceType{-1};
    std::atomic<uint32_t> location{3};
    std::string emailAddress;
    std::mutex emailMutex;
    std::atomic<int32_t> dataType{-1};
    std::string userName;
    std::mutex userMutex;
    std::atomic<uint32_t> report{1};

    // Opt-in behaviour beyond the original exports; the defaults change nothing.
    struct Extensions {
        dataExchangeProgressCallback progress = nullptr;
        void* progressContext = nullptr;
        uint32_t stallTimeoutSeconds = 0;
        bool removePackage = false;
        bool useConfiguredProxy = false;
        bool verifiedDelivery = false;
        uint32_t packingThreads = 1;
        int32_t compressionLevel = -1; // zlib's default level: the archive as it always was
        bool storeIncompressible = false;
        bool unicodePaths = false;
        uint32_t retries = 0;
        uint32_t retryDelayMilliseconds = 1000;
        std::string spoolFolder; // UTF-8; empty: no spool
        bool streamingUpload = false;
    };
    Extensions extensions;
    // The server's answer to the last upload: the name it stored the item under.
    std::string storedName;
};
