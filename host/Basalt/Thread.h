// A named thread that runs the virtual childLoop() of its object once.
// run/isRunning/waitEnd may be called from any thread.
//
// A subclass must make its childLoop return and wait for the thread's end in its own
// destructor: the base destructor joins as a last resort, when the derived part is
// already gone.
#pragma once

#include <QString>

#include <memory>

namespace Basalt {

class Thread {
public:
    explicit Thread(const QString& name);
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts a new thread that calls childLoop() once. Does nothing while running.
    void run();
    bool isRunning() const;
    // Waits up to `ms` milliseconds (a negative value: without limit) for the thread to
    // end; true when it has ended (or never started). Called on the thread itself it
    // returns false at once.
    bool waitEnd(int ms);
    const QString& threadName() const { return name; }
    // True on the thread that this object runs.
    bool isCurrentThread() const;

protected:
    virtual void childLoop() = 0;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
    QString name;
};

} // namespace Basalt
