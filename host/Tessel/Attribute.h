// One named value of the tree: a name, a non-owning pointer to the host node that holds
// it, conversions to and from plain numbers and text, and listeners by role.
//
// Thread contract: an attribute lives on the tree's update thread. Nothing here is
// thread-safe; work from other threads reaches the tree through
// Node::invokeAfterUpdate.
//
// Layers: a value attribute stores one value per layer 0..5; the highest defined layer
// gives the effective (current) value, or a default-constructed value when no layer is
// defined. Layer 0 holds the defaults and layer 2 is written by remote updates.
// LayerCurrent (6) is not a storage layer: passed to asInt/asFloat/asString it asks for
// the effective value.
//
// Listeners: addListener takes a role mask (RoleDelete = 1, RoleChange = 2). Ids come
// from one process-wide counter (shared with node event listeners) and are never
// reused. An emission calls the listeners registered when it started, in ascending id
// order; a listener removed during an emission is not called by it any more if its turn
// has not come yet, and a listener added during an emission is first called by the next
// one. A listener may delete the attribute it listens to; the emission then stops.
//
// Lifetime: an attribute detaches itself from its host when it is destroyed; a node
// deletes the children it still holds when it is destroyed. Every concrete class calls
// aboutToBeDestroyed() first thing in its destructor, so deletion listeners and the
// host's removal notifications see the object with its real dynamic type. A subclass
// whose overrides or listeners use its own members does the same (a node subclass
// otherwise has its members destroyed before its remaining children are deleted).
#pragma once

#include "Tessel/Serializable.h"

#include "Quant/Vector.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Tessel {

class ListenerHolder;
class Node;
class TreeObserver;

class Attribute : public Serializable {
public:
    enum Layer {
        LayerDefault = 0, // defaults (setAsDefaults writes here)
        LayerStyle = 1,
        LayerRemote = 2, // values received from a peer
        LayerUser = 3,
        LayerScript = 4,
        LayerOverride = 5,
        LayerCount = 6,   // number of storage layers
        LayerCurrent = 6, // query only: the effective value
    };
    enum ValueUnit {
        UnitNumber = 0, // a plain number; the only unit value attributes accept
        UnitPercent = 1,
        UnitPixels = 2,
    };
    using Units = QList<ValueUnit>;
    enum Role {
        RoleDelete = 1, // the attribute is being destroyed
        RoleChange = 2, // the value changed (for an alias: its target changed)
    };

    // A detached attribute: no host, empty name.
    Attribute();
    // Adds itself to `host` under `name` (when host is not null). If the host refuses
    // (name taken), the attribute stays detached with that name and a warning is logged.
    // The host's attributeAdded and "attribute-added" listeners run while the derived
    // parts are still being constructed: they may keep the pointer and add listeners,
    // but must not look at its dynamic type yet.
    Attribute(Node* host, const QByteArray& name);
    ~Attribute() override;

    const QByteArray& name() const { return attributeName; }
    // Renames a detached attribute. An attribute held by a node keeps its name (the
    // node's index depends on it): the call logs a warning and changes nothing.
    void setName(const QByteArray& name);
    Node* host() const { return hostNode; }

    // A short word naming the attribute's kind ("float", "node", "alias", ...).
    virtual QByteArray type() const;
    // This attribute as a node, or null: what dynamic_cast<Node*> answers (also while
    // constructing or destroying), for the price of a virtual call. Tree walks ask it
    // for every attribute they pass.
    virtual Node* asNode() { return nullptr; }
    // Sub-attribute by name: children of a node, components of a tuple; null here.
    // `name` may view bytes it does not own (QByteArray::setRawData): an override copies
    // it before keeping it.
    virtual Attribute* attribute(const QByteArray& name) const;

    // Conversions of the value on `layer` (LayerCurrent: the effective value). A layer
    // without a value, or a value that has no such form, gives 0 or an empty string and
    // sets *ok to false; ok may be null.
    virtual float asFloat(bool* ok = nullptr, Layer layer = LayerCurrent) const;
    virtual int asInt(bool* ok = nullptr, Layer layer = LayerCurrent) const;
    virtual QString asString(bool* ok = nullptr, Layer layer = LayerCurrent) const;

    // Conversions into the attribute, written to a storage layer. False (and no change)
    // when the attribute cannot take the value, the unit is not UnitNumber, or the layer
    // is not a storage layer.
    virtual bool set(float value, Layer layer, ValueUnit unit = UnitNumber);
    virtual bool set(int value, Layer layer, ValueUnit unit = UnitNumber);
    virtual bool set(const QString& value, Layer layer, ValueUnit unit = UnitNumber);
    virtual bool set(const Quant::Vector2f& value, Layer layer, Units units = Units());
    virtual bool set(const Quant::Vector3f& value, Layer layer, Units units = Units());
    virtual bool set(const Quant::Vector4f& value, Layer layer, Units units = Units());

    // True when a layer above the defaults holds a value.
    virtual bool isChanged() const;
    // LayerCurrent: whether any layer holds a value.
    virtual bool isValueDefinedOnLayer(Layer layer) const;
    // These fire a change when the effective value changes.
    virtual void clearValue(Layer layer);
    virtual void copyValueFromLayer(Layer from, Layer to);
    // The effective value becomes the layer-0 value and the higher layers are cleared.
    // The effective value stays the same, so no change is fired.
    virtual void setAsDefaults();

    // Calls the RoleChange listeners.
    virtual void emitChange();

    // Registers `callback` for the roles in `roleMask`; returns its id.
    long addListener(std::function<void()> callback, int roleMask);
    // False when the id is not registered on this attribute.
    bool removeListener(long id);
    int listenerCount() const;

    void setSerializable(bool serializable) override { this->serializable = serializable; }
    bool isSerializable() const override { return serializable; }

    // The one observer that hears this attribute's changes (and, for a node, its
    // children coming and going; see TreeObserver), with the number it knows the
    // attribute by. Null when none: setObserver(nullptr, 0) lets it go.
    TreeObserver* observer() const;
    uint32_t observedAs() const { return observedNumber; }
    void setObserver(TreeObserver* observer, uint32_t number);

protected:
    // Calls the RoleDelete listeners.
    void emitDelete();
    // Called first thing by the destructor of every concrete class; idempotent. Fires
    // the deletion listeners once, then detaches from the host. Node extends it to
    // delete its remaining children.
    virtual void aboutToBeDestroyed();
    bool isBeingDestroyed() const { return destroying; }
    // For classes that join their host only once fully constructed (constructed with
    // Attribute()): sets the name and adds itself to `host` (when not null), logging a
    // warning if the host refuses.
    void attachTo(Node* host, const QByteArray& name);

private:
    // Keeps its layer bits here (layersDefined, valueInBlock).
    template <typename T> friend class AttributeBaseT;
    friend class AttributeAlias;
    friend class Node;
    friend class ListenerHolder;
    // What a snapshot points to: one listener, or a table of two or more.
    struct ListenerBlock {
        explicit ListenerBlock(bool table) : isTable(table) {}
        bool isTable;
        // The snapshots, tables and emissions that hold the block.
        mutable std::atomic<int> owners{1};
    };
    // Shared ownership of a block in one pointer, where a shared_ptr takes two: every
    // attribute of a tree carries one.
    class BlockRef {
    public:
        BlockRef() = default;
        // Takes over the block's first owner (a block is made with one).
        explicit BlockRef(ListenerBlock* made) : block(made) {}
        BlockRef(const BlockRef& other) : block(other.block) {
            if (block)
                block->owners.fetch_add(1, std::memory_order_relaxed);
        }
        BlockRef(BlockRef&& other) noexcept : block(other.block) { other.block = nullptr; }
        BlockRef& operator=(BlockRef other) noexcept {
            std::swap(block, other.block);
            return *this;
        }
        ~BlockRef();
        ListenerBlock* get() const { return block; }
        ListenerBlock* operator->() const { return block; }
        explicit operator bool() const { return block != nullptr; }

    private:
        ListenerBlock* block = nullptr;
    };
    struct Listener : ListenerBlock {
        Listener() : ListenerBlock(false) {}
        bool removed = false;
        int roles = 0;
        long id = 0;
        std::function<void()> callback;
        // The holder that registered it (ListenerHolder); told when this attribute dies.
        ListenerHolder* holder = nullptr;
    };
    struct ListenerTable : ListenerBlock {
        ListenerTable() : ListenerBlock(true) {}
        std::vector<BlockRef> entries; // each a Listener
    };
    // The listeners as an immutable snapshot in ascending id order, replaced whole when
    // one comes or goes: an emission holds the snapshot it started with, so it neither
    // copies the table nor allocates. A single listener (the usual case) is held as
    // itself, two or more as a table: one heap block per attribute instead of three.
    class ListenerSnapshot {
    public:
        ListenerSnapshot() = default;
        explicit ListenerSnapshot(BlockRef entries);
        explicit operator bool() const { return bool(entries); }
        std::size_t size() const;
        Listener& at(std::size_t index) const;
        // The entry itself, sharing its ownership.
        BlockRef share(std::size_t index) const;

    private:
        const ListenerTable& table() const {
            return *static_cast<const ListenerTable*>(entries.get());
        }
        BlockRef entries;
    };
    // Where the class keeps this attribute's listeners when it has room for them (made
    // when `make`, else null when there is none); null: in the process's table. Asked
    // only while listeners come, go or run.
    virtual ListenerSnapshot* listenerHome(bool make);
    // The listenerHome lost its last listener: the class may let it go.
    virtual void listenerHomeEmptied() {}
    // Tells a caller up the stack whether the attribute began to be destroyed while it
    // lived (by a callback the caller made). Attributes live on one thread, so the
    // thread's chain of these is all a dying attribute has to check.
    class EndWatch {
    public:
        explicit EndWatch(const Attribute* attribute);
        ~EndWatch();
        EndWatch(const EndWatch&) = delete;
        EndWatch& operator=(const EndWatch&) = delete;
        bool ended() const { return hasEnded; }

    private:
        friend class Attribute;
        const Attribute* const watched;
        bool hasEnded = false;
        EndWatch* const next;
    };
    // Initial-exec: the library is loaded with the program (or has the few bytes of
    // static TLS it needs), and every addition reads this without a call to find it.
    static thread_local EndWatch* endWatches __attribute__((tls_model("initial-exec")));

    void emitRole(int role);
    long addListener(std::function<void()> callback, int roleMask, ListenerHolder* holder);
    // Removes every listener that `holder` registered; false when there was none.
    bool removeListenersOf(const ListenerHolder* holder);
    bool hasListenersOf(const ListenerHolder* holder) const;
    // Replaces the table by its entries that `keep` accepts (null when none is left).
    template <typename Keep> void replaceListeners(Keep keep);
    // Listeners are kept out of the attribute: few attributes of a large tree have any,
    // and a pointer in each would cost them all 8 bytes (a float attribute would no
    // longer fit a 64-byte heap block). A value attribute keeps them in a block it
    // moves its value into (listenerHome); others, and those that got listeners while
    // being constructed, in a table by address shared by the process (ListenerShard,
    // one of several locked apart). Either is read by a copy of the snapshot, and
    // replaced whole.
    struct ListenerShard;
    static ListenerShard& listenerShard(const Attribute* attribute);
    // The listeners (an empty snapshot when there are none).
    ListenerSnapshot listeners() const;
    // Makes `next` the listeners (an empty one: none) and gives back the snapshot
    // that was, for the caller to let go with no lock held.
    ListenerSnapshot exchangeListeners(ListenerSnapshot next);

    // Every flag in the two bytes after the vtable pointer, beside the observer's slot
    // and number: a tree holds millions of attributes.
    uint16_t serializable : 1;
    uint16_t destroying : 1;
    uint16_t detaching : 1; // the host is notifying its removal
    // Set while an AttributeAlias part exists (its constructor body to its destructor's
    // end), as a dynamic_cast would find it: resolving aliases is on every path lookup.
    uint16_t isAlias : 1;
    uint16_t hasListeners : 1;
    uint16_t listenersInTable : 1; // in the process's table rather than a listenerHome
    // AttributeBaseT's: which storage layers hold a value, and whether the value has
    // moved into a block of its own (with the listeners, and a table of every layer).
    uint16_t layersDefined : 6;
    uint16_t valueInBlock : 1;
    uint16_t observerSlot = 0; // TreeObserver::inSlot; 0: none
    uint32_t observedNumber = 0;
    QByteArray attributeName;
    Node* hostNode = nullptr;
    // The host's children form a list through their own links, in insertion order: a
    // node per child in a separate list would cost an allocation and 32 bytes each. The
    // first child's previousSibling is the last child (Node keeps no pointer to it).
    Attribute* previousSibling = nullptr;
    Attribute* nextSibling = nullptr;
};

} // namespace Tessel
