#pragma once

#include <cstddef>
#include <initializer_list>
#include <map>
#include <mutex>
#include <shared_mutex>

namespace Engine {

/// A process-wide lookup table that the module's task threads share. A lookup with the subscript
/// operator inserts a default value on a miss and returns the value, exactly as std::map's does;
/// hits only take the shared lock, so the audit and file-watch threads read side by side.
template <typename Key, typename Value>
class SharedLookupTable {
public:
    SharedLookupTable(std::initializer_list<std::pair<const Key, Value>> pairs) : map_(pairs) {}
    explicit SharedLookupTable(std::map<Key, Value> map) : map_(std::move(map)) {}

    /// The value of key; a missing key is added with a default value, which is returned.
    Value operator[](const Key& key)
    {
        {
            std::shared_lock<std::shared_mutex> lock(mutex_);
            const auto it = map_.find(key);
            if (it != map_.end()) {
                return it->second;
            }
        }
        std::unique_lock<std::shared_mutex> lock(mutex_);
        return map_[key];
    }

    /// Looks key up without adding it; true with value filled when present.
    bool Find(const Key& key, Value& value) const
    {
        std::shared_lock<std::shared_mutex> lock(mutex_);
        const auto it = map_.find(key);
        if (it == map_.end()) {
            return false;
        }
        value = it->second;
        return true;
    }

    size_t count(const Key& key) const
    {
        std::shared_lock<std::shared_mutex> lock(mutex_);
        return map_.count(key);
    }

    size_t erase(const Key& key)
    {
        std::unique_lock<std::shared_mutex> lock(mutex_);
        return map_.erase(key);
    }

    /// A copy of the whole table, in key order.
    std::map<Key, Value> Snapshot() const
    {
        std::shared_lock<std::shared_mutex> lock(mutex_);
        return map_;
    }

private:
    mutable std::shared_mutex mutex_;
    std::map<Key, Value> map_;
};

}  // namespace Engine
