#include "Vorrel/Launch/PermissionService.h"

#include "Vorrel/Platform/Headless/HeadlessSystem.h"
#include "Vorrel/Shell/L10n.h"
#include "tests/support/Await.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;

namespace {

const char *const irrevocable = "This operation cannot be undone.";

class PermissionServiceTest : public testing::Test {
protected:
    MainLoop loop;
    HeadlessDialogs dialogs;
    const PermissionService service{dialogs};
};

} // namespace

TEST_F(PermissionServiceTest, OnlyTheDestructiveRoleAsks)
{
    await(loop, service.authorize(ActionRole::normal, "Open Finder", irrevocable));
    await(loop, service.authorize(ActionRole::write, "Lock Screen", irrevocable));
    EXPECT_EQ(dialogs.asked().size(), 0U);

    Begun<void> asking(loop, service.authorize(ActionRole::destructive, "Empty Trash", irrevocable));
    loop.runUntilIdle();
    EXPECT_TRUE(dialogs.standing());
    EXPECT_FALSE(asking.done());
    dialogs.accept();
    asking.result();
    EXPECT_FALSE(dialogs.standing());
}

TEST_F(PermissionServiceTest, TheAlertHasTheGivenTitleAndDetail)
{
    dialogs.accept();
    await(loop, service.confirm("Empty Trash", irrevocable));
    ASSERT_EQ(dialogs.asked().size(), 1U);
    EXPECT_EQ(dialogs.asked()[0].title, "Empty Trash");
    EXPECT_EQ(dialogs.asked()[0].detail, irrevocable);
}

TEST_F(PermissionServiceTest, TheAlertSpeaksTheUsersLanguage)
{
    L10n::use(L10n::load({"", "", KORVANE_SOURCE "/resources", {"zh"}, "linux"}));
    dialogs.accept();
    await(loop, service.confirm("Empty Trash", irrevocable));
    L10n::use({});
    ASSERT_EQ(dialogs.asked().size(), 1U);
    EXPECT_EQ(dialogs.asked()[0].title, "清空回收站");
    EXPECT_EQ(dialogs.asked()[0].detail, "此操作无法撤销。");
}

TEST_F(PermissionServiceTest, AnythingButAllowIsARefusal)
{
    Begun<void> asking(loop, service.confirm("Empty Trash", irrevocable));
    loop.runUntilIdle();
    dialogs.refuse();
    try {
        asking.result();
        FAIL() << "a refusal went through";
    } catch (const AppError &error) {
        EXPECT_EQ(error.kind(), AppError::Kind::permission);
        EXPECT_EQ(error.errorDescription(), "The operation was cancelled.");
    }
}

TEST_F(PermissionServiceTest, ACancelledQuestionGoesWithItsAsker)
{
    Begun<void> asking(loop, service.confirm("Empty Trash", irrevocable));
    loop.runUntilIdle();
    asking.cancel();
    EXPECT_THROW(asking.result(), Cancelled);
    EXPECT_FALSE(dialogs.standing());
}

TEST_F(PermissionServiceTest, TwoQuestionsAreAnsweredInTheirOrder)
{
    Begun<void> first(loop, service.confirm("First", irrevocable));
    Begun<void> second(loop, service.confirm("Second", irrevocable));
    loop.runUntilIdle();
    dialogs.accept();
    dialogs.refuse();
    EXPECT_NO_THROW(first.result());
    EXPECT_THROW(second.result(), AppError);
}
