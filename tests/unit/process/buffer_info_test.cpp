#include "buffer_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void append(buffer_info_t& buffer, const std::string& text) {
    buffer.append(text.data(), static_cast<unsigned>(text.size()));
}

TEST(BufferInfo, StartsEmpty) {
    EXPECT_EQ(std::make_shared<buffer_info_t>()->text(), "");
}

TEST(BufferInfo, GrowsPieceByPiece) {
    buffer_info_t buffer;
    append(buffer, "{\"cmd\":");
    append(buffer, "\"status\"}");
    EXPECT_EQ(buffer.text(), R"({"cmd":"status"})");
}

TEST(BufferInfo, AppendReturnsTheWholeText) {
    buffer_info_t buffer;
    buffer.append("ab", 2);
    EXPECT_EQ(buffer.append("cd", 2), "abcd");
}

TEST(BufferInfo, AppendTakesExactlyTheLengthEmbeddedNulsIncluded) {
    buffer_info_t buffer;
    buffer.append("a\0bcd", 4);
    EXPECT_EQ(buffer.text(), std::string("a\0bc", 4));
}

TEST(BufferInfo, NullPointerLeavesTheTextUnchanged) {
    buffer_info_t buffer;
    append(buffer, "kept");
    EXPECT_EQ(buffer.append(nullptr, 7), "kept");
    EXPECT_EQ(buffer.text(), "kept");
}

TEST(BufferInfo, ZeroLengthLeavesTheTextUnchanged) {
    buffer_info_t buffer;
    append(buffer, "kept");
    EXPECT_EQ(buffer.append("more", 0), "kept");
    EXPECT_EQ(buffer.text(), "kept");
}

TEST(BufferInfo, EndsItsTextWithANul) {
    buffer_info_t buffer;
    EXPECT_STREQ(buffer.c_str(), "");
    append(buffer, "text");
    EXPECT_STREQ(buffer.c_str(), "text");
}

TEST(BufferInfo, HasRoomForAFrameHeadInFrontOfItsText) {
    for (const char* text : {"", "text"}) {
        buffer_info_t buffer;
        append(buffer, text);
        char* const frame = buffer.frame();
        std::memset(frame - buffer_info_t::head_room, 'h', buffer_info_t::head_room);
        EXPECT_EQ(frame, buffer.text().data());
        EXPECT_EQ(buffer.text(), text);
    }
}

TEST(BufferInfo, GrowsAlsoAfterItWasLookedAtAsAFrame) {
    buffer_info_t buffer;
    static_cast<void>(buffer.frame());
    append(buffer, "text");
    EXPECT_EQ(buffer.text(), "text");
}

TEST(BufferInfo, DumpsAJsonTextAsATree) {
    const LogCapture log(8);
    buffer_info_t buffer;
    append(buffer, R"({"cmd":"status","n":[1,2]})");
    buffer.dump();
    ASSERT_EQ(log.lines().size(), 1u);
    const std::string line = log.lines().front();
    EXPECT_TRUE(line.starts_with("debug: Buffer info dump: {")) << line;
    EXPECT_EQ(line.find(R"("cmd":"status","n")"), std::string::npos) << "not indented: " << line;
    EXPECT_NE(line.find(R"("status")"), std::string::npos) << line;
}

TEST(BufferInfo, DumpsAnyOtherTextRaw) {
    const LogCapture log(8);
    buffer_info_t buffer;
    append(buffer, R"({"cmd": %s oops)");
    buffer.dump();
    EXPECT_THAT(log.lines(), ElementsAre(R"(debug: Buffer info dump: {"cmd": %s oops)"));
}

TEST(BufferInfo, DumpsAnEmptyText) {
    const LogCapture log(8);
    buffer_info_t().dump();
    EXPECT_EQ(log.count("Buffer info dump:"), 1);
}

TEST(BufferInfo, DumpIsSilentWithoutTheDebugBit) {
    const LogCapture log(7);
    buffer_info_t buffer;
    append(buffer, R"({"cmd":"status"})");
    buffer.dump();
    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
