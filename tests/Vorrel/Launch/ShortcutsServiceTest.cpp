#include "Vorrel/Launch/ShortcutsService.h"

#include "Support/ChildProcess.h"
#include "Support/MainLoop.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
using Output = BoundedProcess::Output;

namespace {

/// A tool that answers as the test says.
struct Tool {
    Output answer;
    std::exception_ptr failure;
    bool holds = false; ///< Answers wait for `release`.
    Strings calls; ///< Arguments and the limit of time.
    std::vector<Continuation<void>> waiting;

    ShortcutsCLI::ExecuteProcess process()
    {
        return [this](Strings arguments, double timeout) { return execute(std::move(arguments), timeout); };
    }
    Task<Output> execute(Strings arguments, double timeout)
    {
        std::string call;
        for (const auto &argument : arguments)
            call += argument + " ";
        calls.push_back(call + std::to_string(int(timeout)));
        if (holds) {
            std::function<void(Continuation<void>)> begin = [this](
                                                                Continuation<void> done) { waiting.push_back(std::move(done)); };
            co_await suspend<void>(std::move(begin));
        }
        if (failure)
            std::rethrow_exception(failure);
        co_return answer;
    }
    void release()
    {
        const auto all = std::exchange(waiting, {});
        for (const auto &one : all)
            one.resume();
    }
};

struct Shortcuts : testing::Test {
    Shortcuts()
    {
        service->onUpdate = [this] { ++updates; };
    }
    Strings names() const
    {
        Strings names;
        for (const auto &item : service->shortcuts.get())
            names.push_back(item.name);
        return names;
    }
    std::string outcomeOf(Task<void> task)
    {
        try {
            await(loop, std::move(task));
        } catch (const AppError &error) {
            return error.errorDescription();
        } catch (const Cancelled &) {
            return "cancelled";
        }
        return "done";
    }

    MainLoop loop;
    ManualClock clock{loop};
    Tool tool;
    int updates = 0;
    std::shared_ptr<ShortcutsService> service =
        std::make_shared<ShortcutsService>(loop.executor(), clock, std::make_unique<ShortcutsCLI>(tool.process()));
};

constexpr const char *didNotComplete = "The shortcut did not complete. Check it in Shortcuts and try again.";

} // namespace

// The list

TEST_F(Shortcuts, NamesAreTheLinesOfTheToolTrimmedAndOnce)
{
    tool.answer.stdout = "Resize Picture\n\n\t Send  Mail \t\nResize Picture\n \nlast";
    EXPECT_EQ(outcomeOf(service->refreshNow()), "done");
    EXPECT_EQ(names(), (Strings{"Resize Picture", "Send  Mail", "last"}));
    EXPECT_EQ(tool.calls, Strings{"list 20"});
    EXPECT_EQ(service->statusText.get(), "3 shortcuts");
    EXPECT_EQ(updates, 1);
}

TEST_F(Shortcuts, AnEmptyListSaysSoAndIsStillAnUpdate)
{
    EXPECT_EQ(outcomeOf(service->refreshNow()), "done");
    EXPECT_EQ(service->statusText.get(), "No shortcuts found");
    EXPECT_EQ(updates, 1);
}

TEST_F(Shortcuts, WhileTheListIsLoadedItSaysSoAndASecondRefreshDoesNothing)
{
    tool.holds = true;
    service->refresh(true);
    loop.runUntilIdle();
    EXPECT_EQ(service->statusText.get(), "Loading shortcuts…");
    service->refresh(true);
    EXPECT_EQ(outcomeOf(service->refreshNow()), "done");
    EXPECT_EQ(tool.calls.size(), 1u);
    tool.release();
    loop.runUntilIdle();
    EXPECT_EQ(service->statusText.get(), "No shortcuts found");
}

TEST_F(Shortcuts, AFailedRefreshKeepsTheOldListAndTheNextTriesAgain)
{
    tool.answer.stdout = "one\n";
    EXPECT_EQ(outcomeOf(service->refreshNow()), "done");
    clock.advance(301s);
    tool.answer.status = 1;
    EXPECT_EQ(outcomeOf(service->refreshNow()), didNotComplete);
    EXPECT_EQ(names(), Strings{"one"});
    EXPECT_EQ(service->statusText.get(), didNotComplete);
    EXPECT_EQ(updates, 1);
    tool.answer = {.stdout = "two\n"};
    service->refresh(false);
    loop.runUntilIdle();
    EXPECT_EQ(names(), Strings{"two"});
}

TEST_F(Shortcuts, AToolThatCannotBeStartedIsToldInTheProgramsOwnWords)
{
    tool.failure = std::make_exception_ptr(std::runtime_error("No such file or directory"));
    service->refresh(true);
    loop.runUntilIdle();
    EXPECT_EQ(service->statusText.get(), "The operation could not be completed. Please try again or check permissions.");
}

TEST_F(Shortcuts, AListIsFreshForFiveMinutes)
{
    service->refresh(false);
    loop.runUntilIdle();
    clock.advance(300s);
    service->refresh(false);
    loop.runUntilIdle();
    EXPECT_EQ(tool.calls.size(), 1u);
    clock.advance(1ms);
    service->refresh(false);
    loop.runUntilIdle();
    EXPECT_EQ(tool.calls.size(), 2u);
    service->refresh(true);
    loop.runUntilIdle();
    EXPECT_EQ(tool.calls.size(), 3u);
}

TEST_F(Shortcuts, OnceStartedTheListIsRenewedEveryTenMinutesUntilStopped)
{
    service->start();
    service->start();
    loop.runUntilIdle();
    EXPECT_EQ(tool.calls.size(), 1u);
    clock.advance(599s);
    EXPECT_EQ(tool.calls.size(), 1u);
    clock.advance(1s);
    EXPECT_EQ(tool.calls.size(), 2u);
    clock.advance(600s);
    EXPECT_EQ(tool.calls.size(), 3u);
    service->stop();
    loop.runUntilIdle();
    clock.advance(3600s);
    EXPECT_EQ(tool.calls.size(), 3u);
    EXPECT_EQ(clock.sleepers(), 0u);
}

TEST_F(Shortcuts, AServiceThatHasGoneIsNotHeldByItsMonitor)
{
    service->start();
    loop.runUntilIdle();
    const std::weak_ptr<ShortcutsService> weak = service;
    service.reset();
    loop.runUntilIdle();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(clock.sleepers(), 0u);
}

// A run

TEST_F(Shortcuts, ARunIsNotedWhileItLasts)
{
    tool.holds = true;
    Begun<void> begun(loop, service->run("Send Mail"));
    loop.runUntilIdle();
    EXPECT_EQ(service->runningName.get(), "Send Mail");
    EXPECT_EQ(service->startedAt.get(), clock.now());
    EXPECT_EQ(tool.calls, Strings{"run Send Mail 180"});
    tool.release();
    begun.result();
    EXPECT_FALSE(service->runningName.get());
    EXPECT_FALSE(service->startedAt.get());
}

TEST_F(Shortcuts, ASecondRunIsRefusedUntilTheFirstHasEnded)
{
    tool.holds = true;
    Begun<void> first(loop, service->run("one"));
    loop.runUntilIdle();
    EXPECT_EQ(outcomeOf(service->run("two")), "A shortcut is already running.");
    EXPECT_EQ(service->runningName.get(), "one");
    tool.release();
    first.result();
    tool.holds = false;
    EXPECT_EQ(outcomeOf(service->run("two")), "done");
}

TEST_F(Shortcuts, ARunThatTakesTooLongIsToldAndTheNextMayBegin)
{
    tool.failure = std::make_exception_ptr(AppError(AppError::Kind::toolExecution, "The shortcut timed out. Try again."));
    EXPECT_EQ(outcomeOf(service->run("one")), "The shortcut timed out. Try again.");
    tool.failure = nullptr;
    EXPECT_EQ(outcomeOf(service->run("one")), "done");
}

struct ShortcutsSlow : Shortcuts { }; // a look each ten milliseconds

TEST_F(ShortcutsSlow, AProgramThatSleepsIsEndedAfterThreeMinutesAndTheNextMayBegin)
{
    const DiskFolder disk;
    const std::string path = disk.script("shortcuts", "[ \"$2\" = Quick ] || exec sleep 600");
    const auto process = std::make_shared<BoundedProcess>(loop.executor(), clock, environmentSnapshot());
    const auto real = std::make_shared<ShortcutsService>(
        loop.executor(), clock, std::make_unique<ShortcutsCLI>(ShortcutsCLI::tool(path, process)));
    Begun<void> begun(loop, real->run("Endless"));
    loop.runUntilIdle();
    clock.advance(180s - 10ms);
    EXPECT_FALSE(begun.done());
    const SystemClock machine;
    const auto soonDone = [&](const Begun<void> &one) {
        for (const double end = machine.uptime() + 10; !one.done() && machine.uptime() < end;)
            clock.advance(1ms);
        return one.done();
    };
    ASSERT_TRUE(soonDone(begun));
    try {
        begun.result();
        ADD_FAILURE() << "not told";
    } catch (const AppError &error) {
        EXPECT_EQ(error.errorDescription(), "The shortcut timed out. Try again.");
    }
    Begun<void> next(loop, real->run("Quick"));
    ASSERT_TRUE(soonDone(next));
    EXPECT_NO_THROW(next.result());
}

TEST_F(Shortcuts, ACancelledRunEndsAsCancelledEvenIfTheToolEndedWell)
{
    tool.holds = true;
    Begun<void> begun(loop, service->run("one"));
    loop.runUntilIdle();
    tool.release(); // the tool has ended, and nobody has looked yet
    service->cancelRun();
    EXPECT_THROW(begun.result(), Cancelled);
    EXPECT_FALSE(service->runningName.get());
}

TEST_F(Shortcuts, CancellingTheCallerReachesTheTool)
{
    tool.holds = true;
    Begun<void> begun(loop, service->run("one"));
    loop.runUntilIdle();
    begun.cancel();
    EXPECT_THROW(begun.result(), Cancelled);
    EXPECT_FALSE(service->startedAt.get());
    tool.holds = false;
    EXPECT_EQ(outcomeOf(service->run("two")), "done");
}

TEST_F(Shortcuts, StoppingEndsTheRun)
{
    tool.holds = true;
    Begun<void> begun(loop, service->run("one"));
    loop.runUntilIdle();
    service->stop();
    EXPECT_THROW(begun.result(), Cancelled);
}

TEST_F(Shortcuts, AnExitStatusIsTheOneSentenceWhateverTheToolSaid)
{
    tool.answer = {.stderr = "Traceback: secret", .status = 2};
    EXPECT_EQ(outcomeOf(service->run("one")), didNotComplete);
    EXPECT_EQ(outcomeOf(service->view("one")), didNotComplete);
    EXPECT_EQ(tool.calls, (Strings{"run one 180", "view one 20"}));
}

TEST_F(Shortcuts, WithoutAToolThereIsNothing)
{
    const auto none = std::make_shared<ShortcutsService>();
    none->start();
    none->refresh(true);
    EXPECT_EQ(outcomeOf(none->run("x")), "done");
    EXPECT_TRUE(none->commands().empty());
    none->stop();
}

// The rows

TEST_F(Shortcuts, EachShortcutIsARowInTheOrderOfTheTool)
{
    tool.answer.stdout = "Zoom In\nÄrger 2\n";
    EXPECT_EQ(outcomeOf(service->refreshNow()), "done");
    const auto commands = service->commands();
    ASSERT_EQ(commands.size(), 2u);
    const Row row = commands[0]->result({});
    EXPECT_EQ(row->id, "shortcut:Zoom In");
    EXPECT_EQ(row->title, "Zoom In");
    EXPECT_EQ(row->subtitle, "Run Shortcut");
    EXPECT_EQ(row->keywords, (Strings{"zoom", "in", "shortcut", "快捷指令"}));
    EXPECT_EQ(row->icon, CommandIcon::symbol("wand.and.stars"));
    EXPECT_EQ(row->kind, ResultKind::shortcut);
    EXPECT_EQ(commands[1]->result({})->keywords.front(), "ärger");
    ASSERT_EQ(row->actions.size(), 3u);
    EXPECT_EQ(row->actions[0].title, "Run Shortcut");
    EXPECT_EQ(row->actions[0].shortcut, "↵");
    EXPECT_EQ(row->actions[1].title, "View in Shortcuts");
    EXPECT_EQ(row->actions[2].title, "Refresh List");
    EXPECT_EQ(row->actions[2].dismissal, ActionDismissal::keepOpen);
    for (const auto &action : row->actions)
        EXPECT_EQ(action.role, ActionRole::normal);
}

TEST_F(Shortcuts, TheActionsRunShowAndRefresh)
{
    tool.answer.stdout = "one\n";
    EXPECT_EQ(outcomeOf(service->refreshNow()), "done");
    const Row row = service->commands()[0]->result({});
    tool.holds = true;
    Begun<void> running(loop, row->actions[0].execute());
    loop.runUntilIdle();
    tool.holds = false;
    EXPECT_EQ(outcomeOf(row->actions[1].execute()), "done") << "looking at one is no run";
    EXPECT_EQ(outcomeOf(row->actions[2].execute()), "done");
    tool.release();
    running.result();
    EXPECT_EQ(tool.calls, (Strings{"list 20", "run one 180", "view one 20", "list 20"}));
}
