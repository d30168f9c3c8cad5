#include "platform/extension/extension_item.h"

namespace sv {

ExtensionItem ExtensionItem::itemWithTitle(std::string title, Value attachment) {
    return ExtensionItem{std::move(title), std::move(attachment), std::nullopt};
}

ExtensionItem ExtensionItem::itemWithTitle(std::string title, ipc::Object object) {
    return ExtensionItem{std::move(title), Value(nullptr), std::move(object)};
}

Value ExtensionItem::encode(ipc::Arguments& args) const {
    Value v = Value::object();
    v["title"] = title;
    v["attachment"] = object ? args.reference(*object) : attachment;
    return v;
}

std::vector<ExtensionItem> ExtensionItem::decodeAll(const Value& array,
                                                    const ipc::Received& received) {
    std::vector<ExtensionItem> items;
    if (!array.is_array()) return items;
    for (const Value& entry : array) {
        auto title = stringAt(entry, "title");
        if (!title) continue;
        ExtensionItem item{*title, Value(nullptr), std::nullopt};
        if (auto it = entry.find("attachment"); it != entry.end()) {
            if (auto surface = received.surface(*it))
                item.object = surface;
            else if (auto endpoint = received.endpoint(*it))
                item.object = *endpoint;
            else if (auto file = received.fileToken(*it))
                item.object = *file;
            else
                item.attachment = *it;
        }
        items.push_back(std::move(item));
    }
    return items;
}

const ExtensionItem* itemTitled(const std::vector<ExtensionItem>& items, const std::string& title) {
    for (const auto& item : items)
        if (item.title == title) return &item;
    return nullptr;
}

}  // namespace sv
