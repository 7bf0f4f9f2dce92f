#pragma once

#include "Vorrel/Platform/HTTPClient.h"
#include "Vorrel/Platform/Linux/LinuxEnvironment.h"

#include <memory>
#include <optional>
#include <string>

namespace korvane {

/// Requests over libcurl: certificates verified against the system's authorities, no redirection followed, https through the
/// proxy that the environment names (https_proxy, all_proxy, no_proxy, also in capitals), plain http to this machine alone and
/// never through a proxy. The library reads no variable by itself.
///
/// Each request has a thread of its own, as resolving a name may hang in the system; nothing runs without a request.
class CurlHTTPClient final : public HTTPClient {
public:
    /// How a connection is made, apart from the request.
    struct Settings {
        /// Empty for none.
        std::string proxy = {};
        std::string noProxy = {}; ///< Hosts that are reached without it, with commas between.
        std::optional<std::string> authorities = {}; ///< A file in PEM in place of the system's.

        static Settings from(const Environment &environment);
    };

    explicit CurlHTTPClient(Settings settings);
    /// Cancels what still runs and waits for it, but not for what hangs in the system.
    ~CurlHTTPClient() override;

    Task<HTTPResponse> post(HTTPRequest request) override;

private:
    struct Running;
    class Transfer;

    const Settings settings;
    const std::shared_ptr<Running> running;
};

} // namespace korvane
