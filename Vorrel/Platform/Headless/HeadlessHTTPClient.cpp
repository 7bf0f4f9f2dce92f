#include "Vorrel/Platform/Headless/HeadlessHTTPClient.h"

namespace korvane {

Task<HTTPResponse> HeadlessHTTPClient::post(HTTPRequest request)
{
    _requests.push_back(std::move(request));
    if (answers.empty()) {
        std::function<void(Continuation<void>)> begin = [this](
                                                            Continuation<void> done) { unanswered.push_back(std::move(done)); };
        co_await suspend<void>(std::move(begin));
    }
    Answer answer = std::move(answers.front());
    answers.pop_front();
    if (answer.error)
        std::rethrow_exception(answer.error);
    co_return std::move(answer.response);
}

void HeadlessHTTPClient::answer(int status, std::string body, bool bodyTooLarge)
{
    answers.push_back({{status, std::move(body), bodyTooLarge}, nullptr});
}

void HeadlessHTTPClient::fail(std::exception_ptr error) { answers.push_back({{}, std::move(error)}); }

} // namespace korvane
