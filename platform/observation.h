// Observation of an object's named properties (key paths), with explicit
// registration and removal. Observers are held weakly: an observer that has
// gone away is skipped and forgotten.
//
// Threads: a change is reported synchronously on the thread that changes the
// property, after the object's own locks are released, so an observer may
// remove itself (or others) from inside the callback.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/value.h"

namespace sv {

class Observable;

enum KeyValueObservingOptions : uint32_t {
    KeyValueObservingOptionNone = 0,
    KeyValueObservingOptionNew = 1,
    KeyValueObservingOptionOld = 2,
};

// What changed; a value is present only when the matching option was asked for.
struct KeyValueChange {
    Value oldValue;
    Value newValue;
};

class KeyValueObserver {
  public:
    virtual ~KeyValueObserver() = default;
    virtual void observeValueForKeyPath(const std::string& keyPath, Observable& object,
                                        const KeyValueChange& change, void* context) = 0;
};

// Errors of removeObserver.
inline constexpr const char* kObservationErrorDomain = "org.sorvel.ObservationErrorDomain";
inline constexpr int64_t kObservationErrorNotRegistered = 1;

class Observable {
  public:
    virtual ~Observable() = default;

    // Registers `observer` for changes of `keyPath`. Registering twice makes
    // two registrations (and two callbacks per change).
    void addObserver(const std::shared_ptr<KeyValueObserver>& observer, std::string keyPath,
                     uint32_t options, void* context);
    // Removes the latest registration of `observer` for `keyPath`; an error
    // (kObservationErrorNotRegistered) when there is none.
    Result<void> removeObserver(const KeyValueObserver* observer, std::string_view keyPath);
    size_t observationCount(std::string_view keyPath) const;

  protected:
    // Reports a change to the observers of `keyPath` on the calling thread.
    // Must be called without holding locks that observers may need.
    void didChangeValueForKey(std::string_view keyPath, const Value& oldValue,
                              const Value& newValue);

  private:
    struct Registration {
        std::weak_ptr<KeyValueObserver> observer;
        const KeyValueObserver* identity;
        std::string keyPath;
        uint32_t options;
        void* context;
    };
    mutable std::mutex observersMutex_;
    std::vector<Registration> observers_;
};

}  // namespace sv
