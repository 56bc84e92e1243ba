#include "orchestration/MtpPipeline.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mtp/MtpCrawler.h"
#include "platform/log/LogCapture.h"

namespace {

TEST(MtpPipelineTest, NineStagesInRegistrationOrder) {
    olvane::LogCapture cap;
    kestrow::MtpPipeline pipeline(nullptr);
    EXPECT_NE(nullptr, dynamic_cast<kestrow::MtpCrawler*>(pipeline.crawler()));
    pipeline.stop();  // each stage logs its name, in the order of the stage list
    std::vector<std::string> stopped;
    for (const olvane::LogLine& line : cap.lines())
        if (line.message.find(" stop ") != std::string::npos)
            stopped.push_back(line.message.substr(0, line.message.find(" stop ")));
    EXPECT_EQ(
        std::vector<std::string>({"ChangeFinder-MtpSong", "Normalizer", "MtpMiner", "SongSaver",
                                  "ChangeFinder-MtpPlaylist", "MtpPlaylistMiner", "PlaylistSaver",
                                  "MtpCrawler", "MtpDirectorySaver", "MtpPipeline"}),
        stopped);
}

}  // namespace
