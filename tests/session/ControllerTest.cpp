// The bundle controller on its own: automatic and manual mode, work for a core whose
// node is gone or whose session ended, folding while the peer is behind, and where a
// core is destroyed.
#include "Dovel/session/BundleController.h"
#include "Dovel/session/Connection.h"
#include "Dovel/session/TreeExecutor.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/Trace.h"
#include "Tessel/AttributeT.h"
#include "Tessel/UpdateLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using Dovel::Bundle;
using Dovel::BundleController;
using Dovel::BundleControllerParams;
using Dovel::RemoteNode;

namespace {

using Log = std::vector<std::string>;

// Records every send (also empty ones) and keeps the bundles.
struct Recorder : Dovel::Connection {
    Recorder(Log* log, std::string name) : log(log), name(std::move(name)) {}
    void send(const std::vector<Bundle>& bundles) override {
        if (log)
            log->push_back("flush " + name);
        sent.insert(sent.end(), bundles.begin(), bundles.end());
    }
    Log* log;
    std::string name;
    std::vector<Bundle> sent;
};

// A connection whose peer reads slower than the session writes while `behind` is set.
struct SlowPeer : Recorder {
    using Recorder::Recorder;
    bool holdBack(const std::function<void()>& wakeWhenCaughtUp) override {
        if (behind)
            wake = wakeWhenCaughtUp;
        return behind;
    }
    bool behind = false;
    std::function<void()> wake;
};

BundleControllerParams params(std::shared_ptr<Dovel::Connection> connection, bool autoUpdate) {
    BundleControllerParams p;
    p.connection = std::move(connection);
    p.autoUpdate = autoUpdate;
    p.createMissingAttributes = true;
    return p;
}

// A tree thread run by hand: it counts wake-ups and keeps what is posted to it.
struct HandRunExecutor : Dovel::TreeExecutor {
    std::atomic<int> wakes{0};
    std::mutex mutex;
    std::vector<std::function<void()>> posted; // guarded by mutex

    void post(std::function<void()> function) override {
        std::lock_guard<std::mutex> lock(mutex);
        posted.push_back(std::move(function));
    }
    void wake() override { ++wakes; }
    std::vector<std::function<void()>> take() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::move(posted);
    }
};

// The float at a/value of `node`; -1 when there is none.
float valueAt(RemoteNode& node) {
    auto* copy = dynamic_cast<Tessel::AttributeT<float>*>(
        node.attribute("a") ? node.attribute("a")->attribute("value") : nullptr);
    return copy ? copy->value() : -1.0f;
}

// Runs update-loop passes until the hook has removed every automatic core and
// stopped re-registering itself.
void drainAutomaticCores() {
    for (int i = 0; i < 10 && (BundleController::automaticCoreCount() > 0 ||
                               Tessel::UpdateLoop::pendingCount() > 0);
         ++i)
        Tessel::UpdateLoop::runOnce();
    EXPECT_EQ(BundleController::automaticCoreCount(), 0);
    EXPECT_EQ(Tessel::UpdateLoop::pendingCount(), 0);
}

} // namespace

TEST(Controller, ScheduleProcessAfterTheNodeIsDestroyedIsDropped) {
    Basalt::TraceCapture trace;
    auto node = std::make_unique<RemoteNode>(nullptr, "n");
    auto automatic = BundleController::create(*node, params(nullptr, true));
    auto manual = BundleController::create(*node, params(nullptr, false));
    Tessel::UpdateLoop::runOnce();
    manual->update();
    node.reset();
    EXPECT_EQ(BundleController::automaticCoreCount(), 0); // removed at once
    EXPECT_FALSE(automatic->lockCore());
    automatic->scheduleProcess({Bundle()});
    automatic->setEnabled(false);
    bool ran = false;
    automatic->addTask([&](BundleController::Core&) { ran = true; });
    manual->scheduleProcess({Bundle()});
    manual->update();
    EXPECT_EQ(automatic->symbolRegistryRecv(), nullptr);
    EXPECT_EQ(automatic->symbolRegistrySend(), nullptr);
    automatic.reset();
    manual.reset();
    drainAutomaticCores();
    EXPECT_FALSE(ran);
    EXPECT_EQ(trace.count("", Basalt::Trace::Warning), 0) << trace.dump().toStdString();
}

TEST(Controller, AnEndedSessionAppliesWhatItHadQueuedAndSendsNothingUnlessItNeverRan) {
    // A first output pass (handshake, symbols, a/value = 3.5) from another tree.
    RemoteNode source(nullptr, "source");
    ASSERT_TRUE(
        source.addDeepAttribute("a/value", new Tessel::AttributeT<float>(nullptr, "", 3.5f)));
    auto out = std::make_shared<Recorder>(nullptr, "source");
    BundleController::create(source, params(out, false))->update();
    const std::vector<Bundle> batch = out->sent;

    // A session that never ran is dropped with what it had queued: announcing the tree
    // (a walk of all of it) and listening to it only to stop at once would be waste.
    Log log;
    RemoteNode automaticTarget(nullptr, "automatic");
    const int listeners = automaticTarget.eventListenerCount();
    auto automatic = BundleController::create(
        automaticTarget, params(std::make_shared<Recorder>(&log, "automatic"), true));
    automatic->scheduleProcess(batch);
    automatic.reset();
    drainAutomaticCores();
    EXPECT_EQ(valueAt(automaticTarget), -1.0f);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(automaticTarget.eventListenerCount(), listeners);

    // Manual: the owner hands the ended controller to finish() before dropping it.
    RemoteNode manualTarget(nullptr, "manual");
    auto manual = BundleController::create(
        manualTarget, params(std::make_shared<Recorder>(&log, "manual"), false));
    manual->update();
    ASSERT_EQ(log, (Log{"flush manual"}));
    log.clear();
    manual->scheduleProcess(batch);
    BundleController::finish({manual});
    EXPECT_EQ(valueAt(manualTarget), 3.5f);
    EXPECT_TRUE(log.empty()); // not even the pass before the batch
}

TEST(Controller, WhileThePeerIsBehindChangesAreFoldedAndLeaveOnceWithTheirNewestValues) {
    using Tessel::AttributeT;
    constexpr auto L2 = Tessel::Attribute::LayerRemote;
    RemoteNode source(nullptr, "source");
    auto* a = new AttributeT<int32_t>();
    auto* b = new AttributeT<int32_t>();
    ASSERT_TRUE(source.addDeepAttribute("n/a", a));
    ASSERT_TRUE(source.addDeepAttribute("n/b", b));
    auto out = std::make_shared<SlowPeer>(nullptr, "source");
    auto counters = std::make_shared<Dovel::BundleCounters>();
    auto executor = std::make_shared<HandRunExecutor>();
    std::atomic<int>& wakes = executor->wakes;
    BundleControllerParams p = params(out, false);
    p.executor = executor;
    p.counters = counters;
    auto sender = BundleController::create(source, p);
    sender->update();
    RemoteNode target(nullptr, "target");
    auto receiver = BundleController::create(target, params(nullptr, false));
    receiver->process(out->sent);
    const size_t before = out->sent.size();

    // Enough changes that the held ones are compressed again on the way.
    out->behind = true;
    for (int i = 1; i <= 10000; ++i) {
        a->setValue(i, L2);
        sender->update();
    }
    auto* c = new AttributeT<int32_t>();
    c->setValue(7, L2);
    ASSERT_TRUE(source.addDeepAttribute("n/c", c));
    sender->update();
    c->setValue(8, L2);
    delete b;
    auto* d = new AttributeT<int32_t>(); // added and removed while held: never heard of
    ASSERT_TRUE(source.addDeepAttribute("n/d", d));
    sender->update();
    delete d;
    sender->update();
    EXPECT_EQ(out->sent.size(), before);
    EXPECT_GE(counters->passesHeld.load(), 10003u);
    ASSERT_TRUE(out->wake);

    out->behind = false;
    const int wakesBefore = wakes.load();
    out->wake(); // the writer, once the peer has caught up
    EXPECT_EQ(wakes.load(), wakesBefore + 1);
    sender->update();
    const std::vector<Bundle> released(out->sent.begin() + long(before), out->sent.end());
    size_t bytes = 0;
    for (const Bundle& bundle : released)
        bytes += size_t(bundle.size());
    // c's name, c announced with its value, one value of a, b's removal: not 10,000
    // values of a.
    EXPECT_LT(bytes, 200u);

    receiver->process(released);
    receiver->update();
    auto* copyA = dynamic_cast<AttributeT<int32_t>*>(target.attribute("n")->attribute("a"));
    auto* copyC = dynamic_cast<AttributeT<int32_t>*>(target.attribute("n")->attribute("c"));
    ASSERT_TRUE(copyA && copyC);
    EXPECT_EQ(copyA->value(), 10000);
    EXPECT_EQ(copyC->value(), 8);
    EXPECT_EQ(target.attribute("n")->attribute("b"), nullptr);
    EXPECT_EQ(target.attribute("n")->attribute("d"), nullptr);
}

TEST(Controller, ACoreIsDestroyedOnItsTreeThreadWhereverItsLastReferenceGoes) {
    for (const bool nodeGoesFirst : {false, true}) {
        auto node = std::make_unique<RemoteNode>(nullptr, "n");
        const int listeners = node->eventListenerCount();
        auto executor = std::make_shared<HandRunExecutor>();
        BundleControllerParams p = params(nullptr, false);
        p.executor = executor;
        auto controller = BundleController::create(*node, p);
        controller->update(); // this thread runs the core from now on
        std::thread([moved = std::move(controller)]() mutable { moved.reset(); }).join();
        EXPECT_GT(node->eventListenerCount(), listeners); // still there, untouched
        if (nodeGoesFirst)
            node.reset();
        std::vector<std::function<void()>> run = executor->take();
        ASSERT_EQ(run.size(), 1u);
        run.front()();
        run.clear(); // the core goes here, on the tree thread
        if (node) {
            EXPECT_EQ(node->eventListenerCount(), listeners);
        }
    }
}
