// The stage framework: queues, pausing, stopping, failed passes, pipelines,
// blocks and the scheduler's order of operations.

#include "framework/KestrowOperation.h"
#include "framework/Pipeline.h"
#include "tests/support/Testing.h"

using namespace kestrow;
using namespace olvane::test;

namespace {

struct Rec {  // counts its destructions
    ~Rec() { ++*destroyed; }
    std::atomic<int>* destroyed;
};
using RecBlock = Block<Rec*>;
using Token = Block<void>;

boost::shared_ptr<RecBlock> recs(int id, bool last, int n, std::atomic<int>& freed) {
    auto b = makeBlock<Rec>(testOperation("/media/usb", last, id));
    for (int i = 0; i < n; ++i)
        b->items.push_back(new Rec{&freed});
    return b;
}

// A stage running the test's function; without one it keeps every block it
// receives (see got()) and sends it on. `completed`: read it after join().
template <class T>
struct Stage : Server<T, T> {
    using Fn = std::function<boost::shared_ptr<T>(Stage&, boost::shared_ptr<T>)>;
    explicit Stage(const char* name_, Fn fn_ = nullptr, BaseServer<T>* next_ = nullptr)
        : Server<T, T>(name_, next_), fn(std::move(fn_)) {}
    boost::shared_ptr<T> doOperation(boost::shared_ptr<T> in) override {
        if (fn)
            return fn(*this, in);
        std::lock_guard<std::mutex> lock(mutex_);
        got_.push_back(in);
        return in;
    }
    void signalCompletion(const Operation& op) override { completed.push_back(op.id); }
    std::vector<boost::shared_ptr<T>> got() {
        std::lock_guard<std::mutex> lock(mutex_);
        return got_;
    }
    using BaseServer<T>::capacity;
    Fn fn;
    std::vector<int> completed;
    std::mutex mutex_;
    std::vector<boost::shared_ptr<T>> got_;
};

void launchAndStart(std::initializer_list<Runnable*> stages) {
    for (Runnable* r : stages)
        r->launch(), r->start();
}
void stopAndJoin(std::initializer_list<Runnable*> stages) {
    for (Runnable* r : stages)
        r->stop(), r->join();
}
}  // namespace

// The stage starts paused: it takes nothing until start(), and the 101st
// block waits for room in the full queue. Paused again, it keeps what comes;
// stop() drops that with its records and wakes run loops waiting in pop(),
// paused or running.
TEST(BaseServerTest, QueueHoldsAProducerWhileFullAndStopDropsWhatIsQueued) {
    std::atomic<int> destroyed{0};
    Stage<RecBlock> sink("Sink"), stage("Holder", nullptr, &sink);
    launchAndStart({&sink});
    stage.launch();
    std::vector<boost::shared_ptr<RecBlock>> sent;
    for (int id = 0; id <= 100; ++id)
        sent.push_back(recs(id, true, 1, destroyed));
    for (int i = 0; i < 100; ++i)
        stage.enqueue(sent[i]);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        stage.enqueue(sent[100]);
        done = true;
    });
    EXPECT_FALSE(waitFor([&] { return done.load(); }, 200));
    stage.start();
    producer.join();
    EXPECT_TRUE(waitFor([&] { return sink.got().size() == 101; }));
    EXPECT_EQ(sent, sink.got());

    stage.pause();
    for (int id = 1; id <= 3; ++id)
        stage.enqueue(recs(id, true, 2, destroyed));
    stopAndJoin({&stage, &sink});
    EXPECT_EQ(6, destroyed);                     // none went on: the sink would keep it
    stage.enqueue(recs(9, true, 1, destroyed));  // refused and freed
    EXPECT_EQ(7, destroyed);
}

// A producer floods a -> b -> c (queues of two) while stages run, wait paused
// or block on a full successor; another thread stops them (one twice) at
// random moments while this one joins them, and one is stopped again after
// all have ended. A round that does not end within the watchdog's bound
// fails (and aborts) the test. Every block is freed once all have ended.
TEST(BaseServerTest, StoppingAtAnyMomentNeverHangsTheChainNorKeepsBlocks) {
    std::atomic<int> rounds{0};
    std::thread chains([&] {
        std::mt19937 rng(20240611);
        auto pick = [&](int n) { return int(rng() % unsigned(n)); };
        auto jitter = [](std::mt19937& r) {
            for (volatile unsigned y = r() % 4000; y > 0; y = y - 1) {
            }
        };
        auto pass = [](Stage<RecBlock>&, boost::shared_ptr<RecBlock> in) { return in; };
        for (; rounds < 1000; ++rounds) {
            std::atomic<int> made{0}, freed{0};
            Stage<RecBlock> c("C", pass), b("B", pass, &c), a("A", pass, &b);
            Stage<RecBlock>* stages[] = {&a, &b, &c};
            for (Stage<RecBlock>* s : stages) {
                s->capacity = 2;
                s->launch();
                if (pick(3))
                    s->start();
            }
            std::thread producer([&] {
                for (int i = 0; i < 12; ++i, ++made)
                    a.enqueue(recs(i, false, 1, freed));
            });
            std::vector<int> stopOrder = {0, 1, 2, pick(3)}, joinOrder = {0, 1, 2};
            std::shuffle(stopOrder.begin(), stopOrder.end(), rng);
            std::shuffle(joinOrder.begin(), joinOrder.end(), rng);
            std::thread stopper([&, r = std::mt19937(rng())]() mutable {
                for (int s : stopOrder) {
                    jitter(r);
                    stages[s]->stop();
                }
            });
            for (int s : joinOrder) {
                jitter(rng);
                stages[s]->join();
            }
            stopper.join();
            producer.join();
            stages[pick(3)]->stop();
            EXPECT_EQ(made, freed) << "round " << rounds;
        }
    });
    for (int seen = 0; seen < 1000; seen = rounds)
        ASSERT_TRUE(waitFor([&] { return rounds > seen; }, 30000)) << "round " << seen << " hung";
    chains.join();
}

// Blocks 1 (completing), 2, 10 and 11 (completing) through a stage; ids from
// 10 pause it during their pass, and it is started again once 10 has gone on.
// Running or paused, every result goes on and completing ones are signalled.
// A failing pass sends the operation on as an empty block, unsignalled.
TEST(BaseServerTest, PausedStageHandsEveryResultOnAndFailuresSendEmptyOnes) {
    for (const bool fail : {false, true}) {
        SCOPED_TRACE(fail ? "failing" : "passing");
        std::atomic<int> destroyed{0};
        Stage<RecBlock> sink("Sink");
        Stage<RecBlock> stage(
            "Stage",
            [&](Stage<RecBlock>& self, boost::shared_ptr<RecBlock> in) {
                if (in->operation.id >= 10)
                    self.pause();
                if (fail) {
                    in->operation.deviceGone = true;
                    throw std::runtime_error("bad tag");
                }
                return in;
            },
            &sink);
        launchAndStart({&sink, &stage});
        for (int id : {1, 2, 10})
            stage.enqueue(recs(id, id == 1, 1, destroyed));
        EXPECT_TRUE(waitFor([&] { return sink.got().size() == 3; }));
        stage.start();
        stage.enqueue(recs(11, true, 1, destroyed));
        EXPECT_TRUE(waitFor([&] { return sink.got().size() == 4; }));
        stopAndJoin({&stage, &sink});
        std::string got;  // each block's id; L: completing, F: failed, ?: another mount point
        for (const auto& b : sink.got())
            got += std::to_string(b->operation.id) + (b->operation.lastBlock ? "L" : "") +
                   (b->items.empty() && b->operation.deviceGone ? "F" : "") +
                   (b->operation.mountPoint == "/media/usb" ? " " : "? ");
        EXPECT_EQ(fail ? "1LF 2F 10F 11LF " : "1L 2 10 11L ", got);
        EXPECT_EQ(fail ? std::vector<int>() : std::vector<int>({1, 11}), stage.completed);
        EXPECT_EQ(fail ? 4 : 0, destroyed);
    }
}

// C1 -> C2 -> pipeline -> sink carries a token through unchanged; C3 stands
// alone and a null child is skipped.
TEST(BaseServerTest, PipelinePassesTokensJoinsChildrenLastToFirstAndDeletesThemOnce) {
    olvane::LogCapture cap;
    Stage<Token> sink("Sink");
    auto* pipe = new Pipeline<Token, Token>("Pipe", &sink);
    auto* c2 = new Stage<Token>("C2", nullptr, pipe);
    auto* c1 = new Stage<Token>("C1", nullptr, c2);
    pipe->children = {c1, nullptr, c2, new Stage<Token>("C3")};
    launchAndStart({&sink, pipe});
    boost::shared_ptr<Token> token = makeToken(testOperation());
    c1->enqueue(token);
    ASSERT_TRUE(waitFor([&] { return sink.got().size() == 1; }));
    EXPECT_EQ(token.get(), sink.got()[0].get());
    stopAndJoin({pipe, &sink});
    Strings joined;
    for (const auto& l : cap.lines())
        if (l.message.find(" joined") != std::string::npos)
            joined.push_back(l.message);
    EXPECT_EQ(Strings({"Pipe joined", "C3 joined", "C2 joined", "C1 joined", "Sink joined"}),
              joined);
    delete pipe;  // with its children, once (the sanitizer sees a leak or a second delete)
}

// Ordered by handle, device id (bytes, unsigned), mount point, then id.
TEST(BaseServerTest, OperationsOrderByHandleDeviceMountPointThenId) {
    KestrowOperation ordered[] = {{0, "de", "/z", 9},         {0, "dev", "/media", 9},
                                  {0, "dev", "/media/b", -2}, {0, "dev", "/media/b", 3},
                                  {0, "dev", "/media/b", 10}, {0, "\xc3\xa9", "/a", 0},
                                  {1, "a", "/a", 0}};
    for (size_t i = 0; i + 1 < std::size(ordered); ++i)
        EXPECT_TRUE(ordered[i] < ordered[i + 1] && !(ordered[i + 1] < ordered[i])) << i;
}
