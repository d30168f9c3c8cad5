// Extension items: what a request hands an extension and what it returns.
// An item has a plain title and one attachment: a value (text, number, byte
// string, dictionary, array) or a transferable IPC object (an endpoint or a
// shared surface), carried under the generic data type. Receivers find an
// item by its title and read the attachment.
//
// On the wire an item is {"title": text, "attachment": value}; an object
// attachment is an object reference (docs/ipc-wire-format.md).
//
// Plain values; copy freely between threads.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/ipc/wire.h"
#include "platform/value.h"

namespace sv {

struct ExtensionItem {
    std::string title;
    Value attachment;
    // When set, the attachment is this object (and `attachment` is ignored).
    std::optional<ipc::Object> object;

    // A new item with `title` and a value attachment.
    static ExtensionItem itemWithTitle(std::string title, Value attachment);
    // A new item with `title` and an object attachment.
    static ExtensionItem itemWithTitle(std::string title, ipc::Object object);

    // The wire form, with object references taken from `args`.
    Value encode(ipc::Arguments& args) const;
    // Items of a received array (with the objects of `received`); entries
    // that are not {"title": text, ...} are dropped.
    static std::vector<ExtensionItem> decodeAll(const Value& array, const ipc::Received& received);
};

// The first item titled `title`, or null.
const ExtensionItem* itemTitled(const std::vector<ExtensionItem>& items, const std::string& title);

}  // namespace sv
