// Base of every object of the tree that an archive may write. Only the opt-out flag is
// asked here: internal attributes (tuple components) are marked not serializable so that
// an archive writer skips them. The flag is the subclass's to keep (an attribute keeps
// it beside its other bits: a tree holds millions). Lives on the tree thread.
#pragma once

namespace Tessel {

class Serializable {
public:
    Serializable() = default;
    virtual ~Serializable() = default;
    Serializable(const Serializable&) = delete;
    Serializable& operator=(const Serializable&) = delete;

    // True until set otherwise.
    virtual void setSerializable(bool serializable) = 0;
    virtual bool isSerializable() const = 0;
};

} // namespace Tessel
