#include "framework/Pipeline.h"

#include <gtest/gtest.h>

#include "tests/framework/TestStages.h"
#include "tests/support/Wait.h"

using namespace kestrow;
using namespace kestrow::test;
using olvane::test::waitFor;

// C1 -> C2 -> pipeline -> sink carries a token through unchanged; C3 stands
// alone and a null child is skipped.
TEST(PipelineTest, PassesTokensJoinsChildrenLastToFirstAndDeletesThemOnce) {
    olvane::LogCapture cap;
    PassStage sink("Sink");
    auto* pipe = new Pipeline<Token, Token>("Pipe", &sink);
    auto* c2 = new PassStage("C2", nullptr, pipe);
    auto* c1 = new PassStage("C1", nullptr, c2);
    pipe->children = {c1, nullptr, c2, new PassStage("C3")};
    launchAndStart({&sink, pipe});

    boost::shared_ptr<Token> token = block(7);
    c1->enqueue(token);
    ASSERT_TRUE(waitFor([&] { return sink.got().size() == 1; }));
    EXPECT_EQ(token.get(), sink.got()[0].get());

    stopAndJoin({pipe, &sink});
    EXPECT_EQ(std::vector<std::string>({"Pipe::join: Pipe joined", "C3::join: C3 joined",
                                        "C2::join: C2 joined", "C1::join: C1 joined",
                                        "Sink::join: Sink joined"}),
              linesWith(cap, " joined"));
    EXPECT_TRUE(linesWith(cap, "~BaseServer").empty());
    delete pipe;
    EXPECT_EQ(std::vector<std::string>(
                  {"C1::~BaseServer: ~BaseServer", "C2::~BaseServer: ~BaseServer",
                   "C3::~BaseServer: ~BaseServer", "Pipe::~BaseServer: ~BaseServer"}),
              linesWith(cap, "~BaseServer"));
}
