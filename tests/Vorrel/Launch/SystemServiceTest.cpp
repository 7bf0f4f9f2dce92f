#include "Vorrel/Launch/SystemService.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Launch/PermissionService.h"
#include "tests/support/Await.h"
#include "tests/support/HeadlessDesktop.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;

namespace korvane {
void PrintTo(const AppError &error, std::ostream *out)
{
    *out << static_cast<int>(error.kind()) << ": " << error.errorDescription();
}
} // namespace korvane

namespace {

class SystemServiceTest : public testing::Test {
protected:
    /// The failure of an operation, or none.
    std::optional<AppError> failureOf(Task<void> operation)
    {
        try {
            await(desktop.loop, std::move(operation));
            return std::nullopt;
        } catch (const AppError &error) {
            return error;
        }
    }

    HeadlessDesktop desktop;
    SystemService service{desktop.platform()};
};

constexpr auto permission = AppError::Kind::permission;

} // namespace

TEST_F(SystemServiceTest, AFolderIsOpenedWithTheTildeAsHome)
{
    for (const char *path : {"~", "~/Downloads", "/Applications", "/tmp/~", "~ada"})
        EXPECT_EQ(failureOf(service.openDirectory(path)), std::nullopt) << path;
    EXPECT_EQ(desktop.system.requests(),
        (Strings{"open /home/ada", "open /home/ada/Downloads", "open /Applications", "open /tmp/~", "open ~ada"}));
}

TEST_F(SystemServiceTest, AFolderThatDoesNotOpenIsAFailureThatTheUserCanMend)
{
    desktop.system.opensFolders = false;
    EXPECT_EQ(failureOf(service.openDirectory("~")), AppError(AppError::Kind::recoverable, "Finder could not open this folder."));
}

TEST_F(SystemServiceTest, WhatTheSystemDoesIsNoFailure)
{
    EXPECT_EQ(failureOf(service.lockScreen()), std::nullopt);
    EXPECT_EQ(failureOf(service.sleep()), std::nullopt);
    EXPECT_EQ(failureOf(service.emptyTrash()), std::nullopt);
    EXPECT_EQ(desktop.system.requests(), (Strings{"lock", "sleep", "trash"}));
}

TEST_F(SystemServiceTest, LockScreenWithoutTheAccessibilityRightNamesTheSettingsPath)
{
    desktop.system.lockOutcome = SystemOutcome::refused;
    EXPECT_EQ(failureOf(service.lockScreen()),
        AppError(permission, "Enable Korvane in System Settings → Privacy & Security → Accessibility to lock the screen."));
}

TEST_F(SystemServiceTest, LockScreenWithoutAServiceSaysThatItCouldNotAsk)
{
    desktop.system.lockOutcome = SystemOutcome::unavailable;
    EXPECT_EQ(
        failureOf(service.lockScreen()), AppError(AppError::Kind::toolExecution, "Could not create the lock-screen event."));
}

TEST_F(SystemServiceTest, SleepTellsARefusalFromAMissingService)
{
    desktop.system.sleepOutcome = SystemOutcome::refused;
    EXPECT_EQ(failureOf(service.sleep()), AppError(permission, "macOS did not allow this sleep request."));
    desktop.system.sleepOutcome = SystemOutcome::unavailable;
    EXPECT_EQ(failureOf(service.sleep()), AppError(permission, "Power management is unavailable."));
}

TEST_F(SystemServiceTest, AnyFailureOfTheTrashHasOneSentence)
{
    const AppError failure(permission, "Finder could not empty the Trash. Check Automation permissions and try again.");
    for (const auto outcome : {SystemOutcome::refused, SystemOutcome::unavailable}) {
        desktop.system.trashOutcome = outcome;
        EXPECT_EQ(failureOf(service.emptyTrash()), failure);
    }
}

TEST_F(SystemServiceTest, ADeclinedEmptyTrashEmptiesNothing)
{
    const PermissionService permissions(desktop.dialogs);
    const auto gated = [](const PermissionService &permissions, const SystemService &service) -> Task<void> {
        co_await permissions.authorize(ActionRole::destructive, "Empty Trash", "This operation cannot be undone.");
        co_await service.emptyTrash();
    };
    desktop.dialogs.refuse();
    EXPECT_EQ(failureOf(gated(permissions, service)), AppError(permission, "The operation was cancelled."));
    EXPECT_EQ(desktop.system.requests(), Strings());
    desktop.dialogs.accept();
    EXPECT_EQ(failureOf(gated(permissions, service)), std::nullopt);
    EXPECT_EQ(desktop.system.requests(), Strings{"trash"});
}
