#include "framework/Pipeline.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>

#include "platform/log/LogCapture.h"
#include "tests/framework/TestStages.h"
#include "tests/support/Wait.h"

using namespace kestrow;
using namespace kestrow::test;
using olvane::LogCapture;
using olvane::test::waitFor;

namespace {

using TokenPipeline = Pipeline<Token, Token>;

// A pass-through child that counts its deletions by name.
class Child : public PassStage {
public:
    Child(const char* name_, std::map<std::string, int>* deleted_, BaseServer<Token>* next_)
        : PassStage(name_, passOn, next_), deleted(deleted_) {}
    ~Child() override { ++(*deleted)[this->name]; }
    std::map<std::string, int>* deleted;
};

// The function texts of the captured lines with `message`, in order.
std::vector<std::string> functionsOf(const LogCapture& cap, const std::string& message) {
    std::vector<std::string> out;
    for (const auto& l : cap.lines())
        if (l.message == message)
            out.push_back(l.function);
    return out;
}

}  // namespace

// Children launch after the pipeline, start and stop before it, and are
// joined after it, last to first; deleting it deletes each child once.
TEST(PipelineTest, DrivesChildrenInOrderAndDeletesThemOnce) {
    LogCapture cap;
    std::map<std::string, int> deleted;
    TokenPipeline* pipe = new TokenPipeline("Pipe");
    pipe->children.push_back(new Child("C1", &deleted, nullptr));
    pipe->children.push_back(nullptr);
    pipe->children.push_back(new Child("C2", &deleted, nullptr));
    pipe->children.push_back(new Child("C3", &deleted, nullptr));

    pipe->launch();
    EXPECT_EQ(std::vector<std::string>({"Pipe::launch", "C1::launch", "C2::launch", "C3::launch"}),
              functionsOf(cap, "pthread_create"));
    pipe->start();
    EXPECT_EQ(std::vector<std::string>(
                  {"C1 is now paused play it again", "C2 is now paused play it again",
                   "C3 is now paused play it again", "Pipe is now paused play it again"}),
              messagesWith(cap, "is now paused"));
    pipe->pause();
    EXPECT_EQ(std::vector<std::string>({"pause"}), functionsOf(cap, "pause"));
    pipe->start();
    EXPECT_EQ(8u, messagesWith(cap, "is now paused").size());

    pipe->stop();
    char stopLine[64];
    std::snprintf(stopLine, sizeof stopLine, "stop %x",
                  unsigned(reinterpret_cast<uintptr_t>(pipe)));
    EXPECT_EQ(std::vector<std::string>({"stop"}), functionsOf(cap, stopLine));
    EXPECT_EQ(std::vector<std::string>({"C1 stopped", "C2 stopped", "C3 stopped", "Pipe stopped"}),
              messagesWith(cap, " stopped"));
    pipe->join();
    EXPECT_EQ(std::vector<std::string>({"Pipe joined", "C3 joined", "C2 joined", "C1 joined"}),
              messagesWith(cap, " joined"));

    EXPECT_TRUE(deleted.empty());
    delete pipe;
    EXPECT_EQ((std::map<std::string, int>{{"C1", 1}, {"C2", 1}, {"C3", 1}}), deleted);
}

// A token passes the chain C1 -> C2 -> pipeline and reaches the pipeline's
// successor as the same object; a pipeline without children does the same.
TEST(PipelineTest, TokenReachesTheSuccessorUnchanged) {
    std::map<std::string, int> deleted;
    Collector<Token> sink;
    sink.launch();
    sink.start();
    TokenPipeline bare("Bare", &sink);
    TokenPipeline pipe("Pipe", &sink);
    Child* c2 = new Child("C2", &deleted, &pipe);
    Child* c1 = new Child("C1", &deleted, c2);
    pipe.children = {c1, c2};
    for (TokenPipeline* p : {&bare, &pipe}) {
        p->launch();
        p->start();
    }

    boost::shared_ptr<Token> viaChain = token(7);
    boost::shared_ptr<Token> direct = token(8);
    c1->enqueue(viaChain);
    ASSERT_TRUE(waitFor([&] { return sink.size() == 1; }));
    bare.enqueue(direct);
    ASSERT_TRUE(waitFor([&] { return sink.size() == 2; }));
    EXPECT_EQ(viaChain.get(), sink.got()[0].get());
    EXPECT_EQ(direct.get(), sink.got()[1].get());
    EXPECT_EQ(std::vector<int>({7}), c1->completed());
    EXPECT_EQ(std::vector<int>({7}), c2->completed());

    for (TokenPipeline* p : {&bare, &pipe}) {
        p->stop();
        p->join();
    }
    sink.stop();
    sink.join();
}
