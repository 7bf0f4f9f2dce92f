#include "Vorrel/Platform/Linux/LinuxSystemFacts.h"

#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <sys/utsname.h>

using namespace korvane;
using namespace korvane::test;

TEST(LinuxSystemFacts, NameTheSystemTheProcessorAndTheLanguage)
{
    DiskFolder disk;
    const std::string release = disk.file("os-release", "ID=debian\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n");
    utsname kernel{};
    ::uname(&kernel);
    const auto facts = linuxSystemFacts(
        [](std::string_view name) { return name == "LANG" ? std::optional<std::string>("zh_CN.UTF-8") : std::nullopt; }, release);
    EXPECT_EQ(facts.version, "Debian GNU/Linux 12 (bookworm), Linux " + std::string(kernel.release));
    EXPECT_EQ(facts.architecture, kernel.machine);
    EXPECT_EQ(facts.language, "zh_CN.UTF-8");
}

TEST(LinuxSystemFacts, WhatIsNotToldIsLeftOut)
{
    const auto facts = linuxSystemFacts([](std::string_view) { return std::nullopt; }, "/nowhere/os-release");
    EXPECT_TRUE(facts.version.starts_with("Linux "));
    EXPECT_EQ(facts.language, "unknown");
}
