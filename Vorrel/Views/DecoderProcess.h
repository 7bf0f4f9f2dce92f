#pragma once

#include "Support/Task.h"
#include "Vorrel/Views/Decoding/DecoderMessages.h"

#include <memory>
#include <string>
#include <vector>

namespace korvane {

/// The process that decodes pictures and documents, as the program sees it: it may crash, hang or lie, and nothing follows
/// from that but an answer that failed. Main thread; nothing here blocks it.
class DecoderProcess {
public:
    /// Begins to start the program at the absolute path; what is asked meanwhile waits.
    explicit DecoderProcess(const std::string &program);
    /// Ends the process, in the middle of whatever it does.
    ~DecoderProcess();
    DecoderProcess(const DecoderProcess &) = delete;

    struct Answer {
        decoding::Reply reply;
        std::vector<unsigned char> bytes; ///< As many as the reply says.
    };
    /// Answers come in the order of the requests. `file` goes along with those that need one. Throws `Cancelled` when the
    /// caller is cancelled or this is destroyed.
    Task<Answer> ask(decoding::Request request, std::shared_ptr<const Descriptor> file);

    /// Whether it has ended and can answer nothing any more.
    bool ended() const;

private:
    struct Job;
    struct State;
    static void serve(const std::shared_ptr<State> &state, const std::string &program);

    std::shared_ptr<State> state; // shared with the thread that talks to the process
};

} // namespace korvane
