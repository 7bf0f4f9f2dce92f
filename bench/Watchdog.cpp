// Tells of every turn of a Qt program's main thread that takes more than 8 ms of its own processor time. A library to be
// preloaded into the unchanged program:
//   LD_PRELOAD=libkorvane_watchdog.so PROGRAM
// It counts from the signal SIGUSR1 on and says on the standard error, for each such turn, how long it took, the event
// that took most of it and where the thread stood when the time was over; at the end it says how many turns there were.
#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEvent>
#include <QMetaEnum>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr double limit = 8; // milliseconds

// Written by the handlers of signals
volatile std::sig_atomic_t counting = 0;
std::array<void *, 48> frames;
volatile std::sig_atomic_t depth = 0;

double now()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return double(time.tv_sec) * 1e3 + double(time.tv_nsec) / 1e6;
}

/// What the main thread does from one wait for events to the next.
class Watchdog : public QObject {
public:
    Watchdog()
    {
        backtrace(frames.data(), 1); // loads what it needs now, and not in the handler
        std::signal(SIGUSR1, [](int) { counting = 1; });
        std::signal(SIGPROF, [](int) { depth = backtrace(frames.data(), int(frames.size())); });
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGPROF;
        event._sigev_un._tid = pid_t(syscall(SYS_gettid));
        timer_create(CLOCK_THREAD_CPUTIME_ID, &event, &timer);
        // One kind of dispatcher tells before it waits, the other before it looks: both end one turn and begin the next.
        auto *dispatcher = QAbstractEventDispatcher::instance();
        connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this, [this] { nextTurn(); });
        connect(dispatcher, &QAbstractEventDispatcher::awake, this, [this] { nextTurn(); });
        connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, [this] { sayAll(); });
        QCoreApplication::instance()->installEventFilter(this);
    }

    bool eventFilter(QObject *receiver, QEvent *event) override
    {
        if (counting) {
            endEvent();
            type = event->type();
            className = receiver->metaObject()->className();
        }
        return false;
    }

private:
    /// Notes the event that has just been handled if it was the longest of its turn.
    void endEvent()
    {
        const double time = now();
        if (time - eventBegin > longestEvent) {
            longestEvent = time - eventBegin;
            longestType = type;
            longestClass = className;
        }
        eventBegin = time;
    }

    void nextTurn()
    {
        if (!counting)
            return;
        if (turns++ > 0) {
            endEvent();
            const double took = eventBegin - turnBegin;
            longestTurn = std::max(longestTurn, took);
            if (took > limit)
                tell(took);
        }
        type = QEvent::None;
        className = "no object";
        longestEvent = 0;
        depth = 0;
        const itimerspec over{{}, {0, long(limit * 1e6)}};
        timer_settime(timer, 0, &over, nullptr);
        turnBegin = eventBegin = now();
    }

    void tell(double took)
    {
        slow++;
        const char *name = QMetaEnum::fromType<QEvent::Type>().valueToKey(longestType);
        std::fprintf(stderr, "watchdog: a turn of %.1f ms, %.1f of them from the event %s (%d) of %s on\n", took, longestEvent,
            name ? name : "of a program's own", int(longestType), longestClass);
        std::fflush(stderr);
        backtrace_symbols_fd(frames.data(), depth, STDERR_FILENO);
    }

    void sayAll() const
    {
        std::fprintf(stderr, "watchdog: %d turns, the longest %.2f ms, %d over %g ms\n", turns, longestTurn, slow, limit);
    }

    timer_t timer{};
    double turnBegin = 0, eventBegin = 0, longestEvent = 0, longestTurn = 0;
    QEvent::Type type = QEvent::None, longestType = QEvent::None;
    const char *className = "no object", *longestClass = "no object";
    int turns = 0, slow = 0;
};

void watch()
{
    unsetenv("LD_PRELOAD"); // the program's children are no concern of this one
    static Watchdog watchdog;
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(watch)
