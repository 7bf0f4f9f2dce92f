#pragma once

#include "Vorrel/Platform/HTTPClient.h"

#include <deque>
#include <exception>
#include <vector>

namespace korvane {

/// A network in memory: keeps what is sent and answers as it was told, in that order. Main thread only.
class HeadlessHTTPClient final : public HTTPClient {
public:
    Task<HTTPResponse> post(HTTPRequest request) override;

    void answer(int status, std::string body, bool bodyTooLarge = false);
    void fail(std::exception_ptr error);

    const std::vector<HTTPRequest> &requests() const { return _requests; }

private:
    struct Answer {
        HTTPResponse response;
        std::exception_ptr error;
    };
    std::deque<Answer> answers; ///< A request without one waits until it is cancelled.
    std::vector<HTTPRequest> _requests;
    std::vector<Continuation<void>> unanswered;
};

} // namespace korvane
