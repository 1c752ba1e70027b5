#include "finding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "json_writer.h"

using testing::HasSubstr;

namespace {

TEST(Report, WithoutFindingsAllIsWell) {
    EXPECT_EQ(report{}.worst(), severity::ok);
    EXPECT_EQ(report{}.lines(), "");
}

TEST(Report, TheHeaviestFindingDecides) {
    report found;
    found.broken("b", "text", "advice");
    found.warning("a", "text", "advice");
    found.ok("c", "text");
    EXPECT_EQ(found.worst(), severity::broken);
}

TEST(Report, EachFindingIsOneLineWithItsAdvice) {
    report found;
    found.warning("bus", std::string(200, 'x'), "do this");
    EXPECT_EQ(found.lines(), "warning  bus            " + std::string(200, 'x') + " -> do this\n");
}

TEST(Report, AFindingNamesFileAndLine) {
    report found;
    found.add({severity::ok, "c", "text", "", "/f", 3});
    found.add({severity::ok, "c", "text", "", "/f", 0});
    EXPECT_THAT(found.lines(), HasSubstr("/f:3: text\n"));
    EXPECT_THAT(found.lines(), HasSubstr("/f: text\n"));
}

TEST(Report, WhatWouldMoveATerminalsCursorIsReplaced) {
    report found;
    found.ok("c", "a\nb\x1b[2Jc");
    EXPECT_THAT(found.lines(), HasSubstr("a?b?[2Jc\n"));
}

TEST(Report, WrappedLinesFitAndLoseNoWord) {
    report found;
    std::string words;
    for (int i = 100; i < 150; i++)
        words += std::to_string(i) + " ";
    found.ok("c", words + std::string(100, 'x'));
    std::istringstream lines{found.wrapped()};
    std::string all;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LT(line.size(), 80u);
        all += line;
    }
    for (int i = 100; i < 150; i++)
        EXPECT_THAT(all, HasSubstr(std::to_string(i)));
}

TEST(Report, AsJsonItHasStatusAndFindings) {
    report found;
    found.add({severity::warning, "configuration", "text", "advice", "/f", 3});
    json_writer object("", "", "", "");
    found.write(object);
    EXPECT_STREQ(object.serialize(),
                 R"({"status":"warning","findings":[{"check":"configuration","status":"warning",)"
                 R"("file":"\/f","line":3,"text":"text","advice":"advice"}]})");
}

}  // namespace
