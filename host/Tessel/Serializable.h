// Base of every object of the tree that an archive may write. Only the opt-out flag is
// kept here: internal attributes (tuple components) are marked not serializable so that
// an archive writer skips them. Lives on the tree thread.
#pragma once

namespace Tessel {

class Serializable {
public:
    Serializable() = default;
    virtual ~Serializable() = default;
    Serializable(const Serializable&) = delete;
    Serializable& operator=(const Serializable&) = delete;

    void setSerializable(bool serializable) { this->serializable = serializable; }
    bool isSerializable() const { return serializable; }

private:
    bool serializable = true;
};

} // namespace Tessel
