#pragma once

#include <sys/inotify.h>

#include <cstdint>

// What a file-watch subscriber needs to know of the file-watch task: the kinds of its
// notifications and the bound of its index.

namespace Engine {

/// File notification kinds: the Linux inotify bits.
enum FileNotifyKind : uint32_t {
    kNotifyAccess = IN_ACCESS,
    kNotifyModify = IN_MODIFY,
    kNotifyAttrib = IN_ATTRIB,
    kNotifyMovedFrom = IN_MOVED_FROM,
    kNotifyMovedTo = IN_MOVED_TO,
    kNotifyMove = IN_MOVE,  ///< moved from and moved to: a rename within one directory
    kNotifyCreate = IN_CREATE,
    kNotifyDelete = IN_DELETE,
    kNotifyOverflow = IN_Q_OVERFLOW,  ///< the watch's index is full; sent whatever the mask
};

/// The name of a notification kind (create, delete, modify, attrib, moved_from, moved_to, move,
/// overflow), or null for a value that is none of them.
inline const char* FileNotifyKindName(uint32_t kind)
{
    switch (kind) {
    case kNotifyModify: return "modify";
    case kNotifyAttrib: return "attrib";
    case kNotifyMovedFrom: return "moved_from";
    case kNotifyMovedTo: return "moved_to";
    case kNotifyMove: return "move";
    case kNotifyCreate: return "create";
    case kNotifyDelete: return "delete";
    case kNotifyOverflow: return "overflow";
    default: return nullptr;
    }
}

/// The engine setting that bounds the entries of each watched tree in the inode index.
inline constexpr const char* kMaxWatchEntriesSetting = "audit.file_watch.max_entries";
/// Its value when the agent does not set it: some 100 MB of index per watch at most.
inline constexpr uint64_t kDefaultMaxWatchEntries = 500000;

}  // namespace Engine
