#include "Vorrel/Shell/AppLog.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace korvane {

namespace {

using Observer = std::function<void(std::string_view, AppLog::Level, std::string_view)>;

std::atomic<bool> silenced{false};

/// The loggers behind the categories, each made at its first message, all writing to standard error. Never
/// destroyed, so that what still runs while the process ends may log.
class Loggers {
public:
    static Loggers &shared()
    {
        static auto *const loggers = new Loggers;
        return *loggers;
    }

    std::shared_ptr<spdlog::logger> named(std::string_view category)
    {
        const std::lock_guard lock(mutex);
        auto &logger = loggers[std::string(category)];
        if (!logger) {
            logger = std::make_shared<spdlog::logger>(std::string(category), sink);
            logger->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z dev.korvane.vorrel:%n %l: %v");
        }
        return logger;
    }

    void setObserver(Observer next)
    {
        const auto shared = next ? std::make_shared<const Observer>(std::move(next)) : nullptr;
        const std::lock_guard lock(mutex);
        _observer = shared;
    }

    std::shared_ptr<const Observer> observer()
    {
        const std::lock_guard lock(mutex);
        return _observer;
    }

private:
    std::mutex mutex;
    const std::shared_ptr<spdlog::sinks::sink> sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    std::map<std::string, std::shared_ptr<spdlog::logger>> loggers;
    std::shared_ptr<const Observer> _observer;
};

void write(std::string_view category, AppLog::Level level, std::string_view message)
{
    Loggers &loggers = Loggers::shared();
    if (!silenced)
        loggers.named(category)->log(level == AppLog::Level::error ? spdlog::level::err : spdlog::level::info,
            spdlog::string_view_t(message.data(), message.size()));
    if (const auto observer = loggers.observer())
        (*observer)(category, level, message);
}

} // namespace

constinit const AppLog::Category AppLog::app("app");
constinit const AppLog::Category AppLog::command("command");
constinit const AppLog::Category AppLog::search("search");
constinit const AppLog::Category AppLog::mcp("mcp");
constinit const AppLog::Category AppLog::database("database");

void AppLog::Category::info(std::string_view message) const { write(name, Level::info, message); }
void AppLog::Category::error(std::string_view message) const { write(name, Level::error, message); }

void AppLog::observe(std::function<void(std::string_view, Level, std::string_view)> observer)
{
    Loggers::shared().setObserver(std::move(observer));
}

void AppLog::silence() { silenced = true; }

} // namespace korvane
