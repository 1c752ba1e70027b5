#include "files.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "temporary_folder.h"

using testing::Optional;
using testing::UnorderedElementsAre;

namespace {

class Files : public testing::Test {
  protected:
    const TemporaryFolder folder;
    const std::string path = folder / "file";
};

TEST_F(Files, AFileIsReadUpToTheLimit) {
    folder.write("file", "0123456789");
    EXPECT_THAT(read_file(path, 100), Optional(std::string("0123456789")));
    EXPECT_THAT(read_file(path, 4), Optional(std::string("0123")));
}

TEST_F(Files, AFilesEndIsReadUpToTheLimit) {
    folder.write("file", "0123456789");
    EXPECT_THAT(read_end_of_file(path, 100), Optional(std::string("0123456789")));
    EXPECT_THAT(read_end_of_file(path, 4), Optional(std::string("6789")));
}

TEST_F(Files, WhatCannotBeReadGivesItsReason) {
    EXPECT_FALSE(read_file(path, 100));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(read_file(folder.path(), 100));
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(Files, ANamedPipeIsNotWaitedFor) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_THAT(read_file(path, 100), Optional(std::string()));
}

TEST_F(Files, AFolderIsListedWithoutItselfAndItsParent) {
    folder.write("one", "");
    folder.write("two", "");
    EXPECT_THAT(list_folder(folder.path()), Optional(UnorderedElementsAre("one", "two")));
    EXPECT_FALSE(list_folder(path));
}

TEST_F(Files, AFileFromTheFutureHasNoAge) {
    folder.write("file", "");
    const timespec future[] = {{2000000000, 0}, {2000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), future, 0), 0);
    EXPECT_THAT(age_of_file(path), Optional(0L));
    EXPECT_FALSE(age_of_file(folder / "none"));
}

TEST(DurationText, IsInTheUnitThatAPersonWouldTake) {
    EXPECT_EQ(duration_text(0), "0 s");
    EXPECT_EQ(duration_text(119), "119 s");
    EXPECT_EQ(duration_text(120), "2 min");
    EXPECT_EQ(duration_text(7200), "2 h");
    EXPECT_EQ(duration_text(172800), "2 d");
}

}  // namespace
