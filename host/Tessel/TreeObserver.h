// What watches a large tree without a listener on every attribute and node: an attribute
// names at most one observer (Attribute::setObserver), which then hears its value
// changes and, when it is a node, its children coming and going. A listener costs a heap
// block per attribute; the observer costs a pointer and a number kept in the attribute.
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
#pragma once

namespace Tessel {

class Attribute;
class Node;

class TreeObserver {
public:
    virtual void attributeChanged(Attribute& attribute) = 0;
    virtual void childAdded(Node& node, Attribute& child) = 0;
    virtual void childRemoved(Node& node, Attribute& child) = 0;

protected:
    ~TreeObserver() = default;
};

} // namespace Tessel
