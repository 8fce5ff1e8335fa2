// What watches a large tree without a listener on every attribute and node: an attribute
// names at most one observer (Attribute::setObserver), which then hears its value
// changes and, when it is a node, its children coming and going. A listener costs a heap
// block per attribute; the observer costs a slot and a number kept in the attribute.
//
// When: attributeChanged comes first thing in emitChange, before the attribute's change
// listeners; childAdded comes after the node's attributeAdded hook and before its
// "attribute-added" event, childRemoved after its attributeRemoved hook and before its
// "attribute-removed" event, with the child still listed and hosted.
//
// Thread contract: called on the tree thread from inside the operation. The observer
// must not delete the attribute or node it is told about, nor their hosts, with one
// exception: childAdded may delete or remove the child it is told was added, or the
// node (the event is then not sent).
//
// Slots: an attribute names its observer by a 16-bit slot in a process-wide table
// rather than by a pointer, which saves a word in every attribute. An observer takes a
// slot for its lifetime; constructing one while MaxObservers live throws
// std::length_error. A freed slot is given again only once every slot was taken, the
// one free longest first, so an attribute an observer failed to let go finds none.
// Construction and destruction are thread-safe.
#pragma once

#include <cstdint>

namespace Tessel {

class Attribute;
class Node;

class TreeObserver {
public:
    // Most observers alive at once (one per watched tree, in practice a handful).
    static constexpr int MaxObservers = 0xFFFF;

    virtual void attributeChanged(Attribute& attribute) = 0;
    virtual void childAdded(Node& node, Attribute& child) = 0;
    virtual void childRemoved(Node& node, Attribute& child) = 0;

    // The observer in `slot` (1 to MaxObservers), null when it holds none.
    static TreeObserver* inSlot(uint16_t slot);
    uint16_t slot() const { return ownSlot; }

protected:
    TreeObserver();
    ~TreeObserver();
    TreeObserver(const TreeObserver&) = delete;
    TreeObserver& operator=(const TreeObserver&) = delete;

private:
    uint16_t ownSlot;
};

} // namespace Tessel
