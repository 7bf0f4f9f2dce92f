#pragma once

#include "Vorrel/Views/Decoding/DecoderMessages.h"

#include <QByteArray>
#include <QImage>

#include <memory>

namespace korvane::decoding {

/// Reads pictures and documents that may come from anywhere. Runs in a process of its own, where it may fail in every way
/// that a decoder can; blocks for as long as the file makes it. The toolkit's application object stands. One thread.
class FileDecoder {
public:
    FileDecoder();
    ~FileDecoder();

    struct Answer {
        Reply reply;
        QImage pixels; ///< Lines without gaps. Null in a failure.
        QByteArray pageSizes; ///< Of a document, as they cross.
    };
    /// `file` belongs to a `Picture` or a `Document`, and is kept for the requests that go on with it.
    Answer answer(const Request &request, Descriptor file);

private:
    class Picture;
    class Document;
    std::unique_ptr<Picture> picture;
    std::unique_ptr<Document> document;
};

/// The text of a drawing (SVG) without the parts that refer to other files or to the network. Empty when it is none.
QByteArray withoutReferences(const QByteArray &drawing);

} // namespace korvane::decoding
