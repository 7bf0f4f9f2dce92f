#include "Vorrel/AI/OpenAIProvider.h"
#include "Vorrel/Platform/Headless/HeadlessHTTPClient.h"
#include "Vorrel/Platform/Headless/HeadlessSecretStore.h"
#include "Vorrel/Platform/Linux/LinuxPlatform.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/AppServices.h"
#include "tests/support/Await.h"
#include "tests/support/HeadlessDesktop.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;

namespace {

constexpr const char *marker = "sk-marker-that-nobody-may-see";

/// The files below a folder that hold the marker.
Strings filesWithMarker(const std::string &folder)
{
    Strings found;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file())
            continue;
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        if (bytes.find(marker) != std::string::npos)
            found.push_back(entry.path());
    }
    return found;
}

} // namespace

TEST(Secrecy, TheKeyIsInNoFileLogErrorOrChildOfTheProgram)
{
    std::string folder = std::filesystem::temp_directory_path() / "korvane-secrecy-XXXXXX";
    ASSERT_TRUE(::mkdtemp(folder.data()));
    std::string told;
    AppLog::observe([&](std::string_view, AppLog::Level, std::string_view message) { told += message; });
    HeadlessDesktop desktop;
    HeadlessSecretStore secrets;
    HeadlessHTTPClient http;
    desktop.folders.data = folder;
    Platform platform = desktop.platform();
    platform.secrets = &secrets;
    platform.http = &http;
    auto services = await(desktop.loop, AppServices::create(platform));

    await(desktop.loop, services->keychain.set(marker, KeychainService::providerAccount));
    http.answer(200, R"({"status":"completed","output":[]})");
    http.answer(401, "");
    http.answer(500, "");
    http.answer(200, "rubbish");
    http.fail(std::make_exception_ptr(HTTPFailure(HTTPFailure::Reason::unreachable)));
    const std::vector<Message> messages{{Message::Role::user, "Hello?"}};
    const auto provider = services->makeProvider("gpt-4.1-mini");
    for (int i = 0; i < 5; ++i) {
        try {
            await(desktop.loop, provider->chat(messages, {}, {}));
        } catch (const std::exception &error) {
            told += error.what() + AppError::friendly(std::current_exception());
        }
    }
    ASSERT_EQ(http.requests().size(), 5u);
    for (const HTTPRequest &request : http.requests()) {
        EXPECT_EQ(request.body.find(marker), std::string::npos);
        EXPECT_EQ(request.url.find(marker), std::string::npos);
        EXPECT_EQ(request.headers.at(0).second, std::string("Bearer ") + marker) << "it goes there and nowhere else";
    }
    secrets.readOutcome = secrets.updateOutcome = SecretStore::Outcome::denied;
    for (int i = 0; i < 2; ++i) {
        try {
            await(desktop.loop, services->keychain.set(marker, KeychainService::providerAccount));
        } catch (const AppError &error) {
            told += error.errorDescription();
        }
    }
    EXPECT_NE(told.find("denied"), std::string::npos) << "something was told at all";
    EXPECT_EQ(told.find(marker), std::string::npos);

    SystemClock clock;
    BoundedProcess process(desktop.loop.executor(), clock, processVariables());
    const auto child = await(desktop.loop, process.run("/usr/bin/env", {}, 5, 1'000'000));
    EXPECT_NE(child.stdout.find("PATH="), std::string::npos);
    EXPECT_EQ(child.stdout.find(marker), std::string::npos);
    await(desktop.loop, services->database->close());
    services.reset();
    EXPECT_TRUE(std::filesystem::exists(folder + "/Korvane/korvane.sqlite"));
    EXPECT_EQ(filesWithMarker(folder), Strings());
    AppLog::observe({});
    desktop.loop.shutDown();
    std::filesystem::remove_all(folder);
}
