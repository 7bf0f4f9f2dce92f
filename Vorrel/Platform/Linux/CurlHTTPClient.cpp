#include "Vorrel/Platform/Linux/CurlHTTPClient.h"

#include "Support/Memory.h"
#include "Support/OwnThread.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <curl/curl.h>
#include <mutex>
#include <set>

namespace korvane {

namespace {

constexpr std::chrono::seconds patience{2};
constexpr int longestPoll = 1000; // milliseconds; a cancellation wakes it
constexpr std::size_t mostOfHeaders = 1'000'000; // bytes, those of interim answers too

void initializeLibrary()
{
    static const CURLcode once = curl_global_init(CURL_GLOBAL_DEFAULT);
    (void)once;
}

struct FreeEasy {
    void operator()(CURL *easy) const { curl_easy_cleanup(easy); }
};
struct FreeMulti {
    void operator()(CURLM *multi) const { curl_multi_cleanup(multi); }
};

/// Header lines as the library takes them. They hold the key, and are zeros before they are given back.
class HeaderLines {
public:
    HeaderLines() = default;
    ~HeaderLines()
    {
        for (curl_slist *line = first; line; line = line->next) {
            for (volatile char *byte = line->data; *byte; ++byte)
                *byte = 0;
        }
        curl_slist_free_all(first);
    }
    HeaderLines(const HeaderLines &) = delete;
    HeaderLines &operator=(const HeaderLines &) = delete;

    void add(std::string line)
    {
        if (curl_slist *const longer = curl_slist_append(first, line.c_str()))
            first = longer;
        wipe(line);
    }
    curl_slist *get() const { return first; }

private:
    curl_slist *first = nullptr;
};

HTTPFailure failureOf(CURLcode code)
{
    const bool foreign = code == CURLE_UNSUPPORTED_PROTOCOL || code == CURLE_WEIRD_SERVER_REPLY || code == CURLE_HTTP2;
    return HTTPFailure(foreign ? HTTPFailure::Reason::notHTTP : HTTPFailure::Reason::unreachable);
}

} // namespace

/// One request and its thread. The thread, the waiting caller and the client share it.
class CurlHTTPClient::Transfer {
public:
    Transfer(HTTPRequest request, Settings settings) : request(std::move(request)), settings(std::move(settings)) { }
    ~Transfer() { wipeHeaders(); }
    Transfer(const Transfer &) = delete;
    Transfer &operator=(const Transfer &) = delete;

    /// Any thread; at any time.
    void cancel()
    {
        const std::scoped_lock lock(mutex);
        cancelled = true;
        if (multi)
            curl_multi_wakeup(multi.get());
    }

    /// To be called once, on the transfer's own thread. Throws `HTTPFailure` and `Cancelled`.
    HTTPResponse run()
    {
        initializeLibrary();
        open();
        curl_multi_add_handle(multi.get(), easy.get());
        const CURLcode code = turn();
        curl_multi_remove_handle(multi.get(), easy.get());
        close();
        if (response.status != 0 && (finished || code == CURLE_OK))
            return std::move(response);
        throw failureOf(code);
    }

private:
    void open()
    {
        easy.reset(curl_easy_init());
        setUp();
        std::unique_ptr<CURLM, FreeMulti> made(curl_multi_init());
        const std::scoped_lock lock(mutex);
        multi = std::move(made);
    }

    void close()
    {
        easy.reset();
        const std::scoped_lock lock(mutex);
        multi.reset();
    }

    template <class Value> void set(CURLoption option, Value value) { curl_easy_setopt(easy.get(), option, value); }

    void setUp()
    {
        const bool secure = request.url.size() > 5 && (request.url[4] == 's' || request.url[4] == 'S');
        for (auto &[name, value] : request.headers)
            headers.add(name + ": " + value);
        headers.add("Expect:"); // the server's consent to a body would cost a second where it never comes
        wipeHeaders();
        set(CURLOPT_URL, request.url.c_str());
        set(CURLOPT_PROTOCOLS_STR, secure ? "https" : "http");
        set(CURLOPT_FOLLOWLOCATION, 0L);
        set(CURLOPT_PROXY, secure ? settings.proxy.c_str() : "");
        set(CURLOPT_NOPROXY, settings.noProxy.c_str());
        set(CURLOPT_HEADEROPT, long(CURLHEADER_SEPARATE)); // a proxy does not get the key
        set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
        set(CURLOPT_SSL_VERIFYPEER, 1L);
        set(CURLOPT_SSL_VERIFYHOST, 2L);
        if (settings.authorities) {
            set(CURLOPT_CAINFO, settings.authorities->c_str());
            set(CURLOPT_CAPATH, nullptr);
        }
        set(CURLOPT_HTTPHEADER, headers.get());
        set(CURLOPT_POST, 1L);
        set(CURLOPT_POSTFIELDS, request.body.data());
        set(CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(request.body.size()));
        set(CURLOPT_TIMEOUT_MS, long(request.timeout.count()));
        set(CURLOPT_CONNECTTIMEOUT_MS, long(request.timeout.count()));
        set(CURLOPT_NOSIGNAL, 1L); // signals and threads do not go together
        set(CURLOPT_QUICK_EXIT, 1L); // a name that is still being resolved is not waited for
        set(CURLOPT_HEADERFUNCTION, &Transfer::headerArrived);
        set(CURLOPT_HEADERDATA, static_cast<void *>(this));
        set(CURLOPT_WRITEFUNCTION, &Transfer::bodyArrived);
        set(CURLOPT_WRITEDATA, static_cast<void *>(this));
    }

    CURLcode turn()
    {
        for (int active = 1;;) {
            throwIfCancelled();
            if (curl_multi_perform(multi.get(), &active) != CURLM_OK)
                return CURLE_FAILED_INIT;
            if (active == 0)
                break;
            curl_multi_poll(multi.get(), nullptr, 0, longestPoll, nullptr);
        }
        int left = 0;
        const CURLMsg *const message = curl_multi_info_read(multi.get(), &left);
        return message ? message->data.result : CURLE_FAILED_INIT;
    }

    void throwIfCancelled()
    {
        bool ends = false;
        {
            const std::scoped_lock lock(mutex);
            ends = cancelled;
        }
        if (!ends)
            return;
        curl_multi_remove_handle(multi.get(), easy.get());
        close();
        throw Cancelled();
    }

    static std::size_t headerArrived(char *bytes, std::size_t, std::size_t count, void *transfer)
    {
        return static_cast<Transfer *>(transfer)->takeHeader({bytes, count}) ? count : 0;
    }

    static std::size_t bodyArrived(char *bytes, std::size_t, std::size_t count, void *transfer)
    {
        return static_cast<Transfer *>(transfer)->takeBody({bytes, count}) ? count : 0;
    }

    /// False when nothing more is wanted.
    bool takeHeader(std::string_view line)
    {
        headerBytes += line.size();
        if (headerBytes > mostOfHeaders)
            return false;
        if (line != "\r\n" && line != "\n")
            return true;
        long status = 0;
        curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
        if (status >= 100 && status <= 199)
            return true; // something else is to come
        response.status = static_cast<int>(status);
        finished = status < 200 || status > 299;
        return !finished;
    }

    bool takeBody(std::string_view bytes)
    {
        if (response.body.size() + bytes.size() < request.bodyLimit) {
            response.body.append(bytes);
            return true;
        }
        response.body = {};
        response.bodyTooLarge = finished = true;
        return false;
    }

    void wipeHeaders()
    {
        for (auto &[name, value] : request.headers)
            wipe(value);
    }

    // The transfer's own thread
    HTTPRequest request;
    const Settings settings;
    HeaderLines headers; ///< Longer than the handle that uses them.
    std::unique_ptr<CURL, FreeEasy> easy;
    HTTPResponse response;
    std::size_t headerBytes = 0;
    bool finished = false; ///< What is known will do, though the server has more to say.

    std::mutex mutex;
    std::unique_ptr<CURLM, FreeMulti> multi; ///< Made, ended and woken with the mutex held.
    bool cancelled = false;
};

/// The transfers whose threads have not come to their end.
struct CurlHTTPClient::Running {
    void add(const std::shared_ptr<Transfer> &transfer)
    {
        const std::scoped_lock lock(mutex);
        transfers.insert(transfer);
    }
    void remove(const std::shared_ptr<Transfer> &transfer)
    {
        const std::scoped_lock lock(mutex);
        transfers.erase(transfer);
        changed.notify_all();
    }
    void end()
    {
        std::unique_lock lock(mutex);
        for (const auto &transfer : transfers)
            transfer->cancel();
        changed.wait_for(lock, patience, [this] { return transfers.empty(); });
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::set<std::shared_ptr<Transfer>> transfers;
};

CurlHTTPClient::Settings CurlHTTPClient::Settings::from(const Environment &environment)
{
    const auto first = [&environment](std::initializer_list<std::string_view> names) {
        for (const std::string_view name : names) {
            if (auto value = nonEmpty(environment, name))
                return *std::move(value);
        }
        return std::string();
    };
    return {.proxy = first({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}), .noProxy = first({"no_proxy", "NO_PROXY"})};
}

CurlHTTPClient::CurlHTTPClient(Settings settings) : settings(std::move(settings)), running(std::make_shared<Running>()) { }

CurlHTTPClient::~CurlHTTPClient() { running->end(); }

Task<HTTPResponse> CurlHTTPClient::post(HTTPRequest request)
{
    const auto transfer = std::make_shared<Transfer>(std::move(request), settings);
    struct Ending {
        ~Ending() { transfer.cancel(); } // the caller has what it waited for, or waits no more
        Transfer &transfer;
    } const ending{*transfer};
    std::function<void(Continuation<HTTPResponse>)> begin = [this, &transfer](Continuation<HTTPResponse> done) {
        running->add(transfer);
        auto work = [running = running, transfer, done]() mutable {
            try {
                done.resume(transfer->run());
            } catch (...) {
                done.fail(std::current_exception());
            }
            running->remove(transfer);
        };
        try {
            runOnOwnThread(std::move(work));
        } catch (...) {
            running->remove(transfer);
            throw;
        }
    };
    co_return co_await suspend<HTTPResponse>(std::move(begin));
}

} // namespace korvane
