// Walking a directory.
#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/owned.h>

#include "support/work_dir.h"

using testing::UnorderedElementsAre;

TEST(Dir, GivesEveryEntryWithTheDots)
{
    TemporaryDirectory directory;
    WriteFile(directory.path / "file", "");
    WriteFile(directory.path / ".hidden", "");
    std::filesystem::create_directory(directory.path / "below");

    const veltrane::DirPtr dir(DirOpen(directory.path.c_str()));
    ASSERT_NE(dir, nullptr);
    std::vector<std::string> names;
    while (const struct dirent *entry = DirRead(dir.get())) { names.push_back(entry->d_name); }

    EXPECT_THAT(names, UnorderedElementsAre(".", "..", "file", ".hidden", "below"));
    EXPECT_EQ(DirRead(dir.get()), nullptr);
}

TEST(Dir, WhatCannotBeOpenedIsTheErrno)
{
    TemporaryDirectory directory;
    WriteFile(directory.path / "file", "");

    EXPECT_EQ(DirOpen((directory.path / "missing").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(DirOpen((directory.path / "file").c_str()), nullptr);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(Dir, ClosingNothingIsFine) { DirClose(nullptr); }
