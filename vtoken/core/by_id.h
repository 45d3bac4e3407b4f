// Lookup by identifier in the small lists a card model keeps (children,
// PIN objects, attributes), in the order they were added.
#pragma once

#include <iterator>

namespace vtoken {

// The first element of `items` whose `id` is `id`, or null.
template <class Items, class Id>
auto findById(Items& items, const Id& id) -> decltype(&*std::begin(items)) {
    for (auto& item : items)
        if (item.id == id) return &item;
    return nullptr;
}

}  // namespace vtoken
