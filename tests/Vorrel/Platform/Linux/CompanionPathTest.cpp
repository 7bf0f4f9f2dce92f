#include "Vorrel/Platform/Linux/LinuxPlatform.h"

#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;

TEST(CompanionPath, IsTheInstalledHelperWhereThereIsOne)
{
    const DiskFolder prefix;
    const std::string program = prefix.file("bin/korvane");
    prefix.file("bin/korvane-shortcuts");
    const std::string helper = prefix.file("libexec/korvane/korvane-shortcuts");
    EXPECT_EQ(companionPath(program, "korvane-shortcuts"), helper);
}

TEST(CompanionPath, IsBesideTheProgramInABuild)
{
    const DiskFolder build;
    const std::string program = build.file("bin/korvane");
    EXPECT_EQ(companionPath(program, "korvane-shortcuts"), build / "bin/korvane-shortcuts");
}
