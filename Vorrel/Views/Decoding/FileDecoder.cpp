#include "Vorrel/Views/Decoding/FileDecoder.h"

#include <QColorSpace>
#include <QFile>
#include <QImageReader>
#include <QPainter>
#include <QPdfDocument>
#include <QSvgRenderer>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <algorithm>
#include <cmath>
#include <unistd.h>

namespace korvane::decoding {

static constexpr int decodedMegabytes = 640; // of one picture at full size: 160 million pixels
static constexpr qint64 largestDrawing = 16 * 1024 * 1024;
static constexpr qint64 largestPage = 32 * 1024 * 1024; // pixels
static constexpr int shortestFrame = 20; // milliseconds
static constexpr int usualFrame = 100; // of one that names none worth the name

/// Sends exactly the pixels, in the form that crosses.
static void give(FileDecoder::Answer &answer, const QImage &image)
{
    const bool isOpaque = !image.hasAlphaChannel();
    answer.pixels = image.convertToFormat(isOpaque ? QImage::Format_RGB32 : QImage::Format_ARGB32_Premultiplied);
    if (answer.pixels.isNull())
        return;
    answer.reply.outcome = Outcome::Done;
    answer.reply.isOpaque = isOpaque;
    answer.reply.width = answer.pixels.width();
    answer.reply.height = answer.pixels.height();
    answer.reply.bytes = std::uint64_t(answer.pixels.sizeInBytes());
}

/// The largest size of these proportions within `room`, of at least one pixel.
static QSize fitted(const QSizeF &size, const QSize &room)
{
    const qreal scale = std::min(room.width() / size.width(), room.height() / size.height());
    return QSize(std::clamp(int(std::lround(size.width() * scale)), 1, std::max(1, room.width())),
        std::clamp(int(std::lround(size.height() * scale)), 1, std::max(1, room.height())));
}

static QSize roomOf(const Request &request)
{
    return {std::clamp(request.width, 1, longestSide), std::clamp(request.height, 1, longestSide)};
}

static bool refersElsewhere(const QXmlStreamAttributes &attributes)
{
    return std::ranges::any_of(attributes, [](const QXmlStreamAttribute &one) {
        const QString value = one.value().trimmed().toString();
        return one.name() == QLatin1String("href") && !value.startsWith(u'#') && !value.startsWith(QLatin1String("data:"));
    });
}

QByteArray withoutReferences(const QByteArray &drawing)
{
    QByteArray kept;
    QXmlStreamReader reader(drawing);
    QXmlStreamWriter writer(&kept);
    while (!reader.atEnd()) {
        reader.readNext();
        const bool picture = reader.isStartElement() && reader.name() == QLatin1String("image");
        if (picture && refersElsewhere(reader.attributes()))
            reader.skipCurrentElement();
        else if (!reader.isDTD() && reader.tokenType() != QXmlStreamReader::Invalid)
            writer.writeCurrentToken(reader);
    }
    return reader.hasError() ? QByteArray() : kept;
}

/// A picture, still or moving.
class FileDecoder::Picture {
public:
    explicit Picture(Descriptor file) : descriptor(std::move(file))
    {
        // Another reading of the same open file may have left it anywhere.
        ::lseek(descriptor.get(), 0, SEEK_SET);
        device.open(descriptor.get(), QIODevice::ReadOnly);
        begin();
    }

    Answer first(const Request &request)
    {
        room = roomOf(request);
        if (reader->format().startsWith("svg"))
            return drawing();
        Answer answer = frame();
        if (answer.reply.outcome == Outcome::Ended)
            answer.reply.outcome = Outcome::Failed;
        return answer;
    }

    Answer frame()
    {
        Answer answer = read();
        if (answer.reply.outcome == Outcome::Done || !moves || framesSinceBegin == 0)
            return answer;
        // After the last frame comes the first one again, as often as the file says; -1 stands for always.
        if (loops >= 0 && ++rounds > loops) {
            answer.reply = {.outcome = Outcome::Ended};
            return answer;
        }
        device.seek(0);
        begin();
        return read();
    }

private:
    void begin()
    {
        reader = std::make_unique<QImageReader>(&device);
        reader->setDecideFormatFromContent(true);
        reader->setAutoTransform(true);
        framesSinceBegin = 0;
    }

    Answer read()
    {
        Answer answer;
        if (framesSinceBegin == 0)
            scale();
        QImage image = reader->read();
        if (image.isNull()) {
            answer.reply.outcome = framesSinceBegin ? Outcome::Ended : Outcome::Failed;
            return answer;
        }
        framesSinceBegin++;
        if (!full.isValid())
            full = image.size();
        if (image.width() > room.width() || image.height() > room.height())
            image = image.scaled(room, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        if (image.colorSpace().isValid() && image.colorSpace() != QColorSpace(QColorSpace::SRgb))
            image.convertToColorSpace(QColorSpace::SRgb);
        give(answer, image);
        const int delay = reader->nextImageDelay();
        answer.reply.milliseconds = delay < shortestFrame ? usualFrame : delay;
        answer.reply.fullWidth = full.width();
        answer.reply.fullHeight = full.height();
        answer.reply.count = moves ? 2 : 1;
        return answer;
    }

    /// Asks for no more pixels than are shown.
    void scale()
    {
        moves = reader->supportsAnimation() && reader->imageCount() != 1;
        loops = moves ? reader->loopCount() : 0;
        const bool turned = reader->transformation() & QImageIOHandler::TransformationRotate90;
        const QSize stored = reader->size();
        if (!stored.isValid())
            return;
        full = turned ? stored.transposed() : stored;
        const QSize storedRoom = turned ? room.transposed() : room;
        if (stored.width() > storedRoom.width() || stored.height() > storedRoom.height())
            reader->setScaledSize(fitted(stored, storedRoom));
    }

    Answer drawing()
    {
        Answer answer;
        device.seek(0);
        QSvgRenderer renderer(withoutReferences(device.read(largestDrawing)));
        const QSizeF size = renderer.viewBoxF().size().isEmpty() ? QSizeF(renderer.defaultSize()) : renderer.viewBoxF().size();
        if (!renderer.isValid() || size.isEmpty())
            return answer;
        QImage image(fitted(size, room), QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        renderer.render(&painter);
        painter.end();
        give(answer, image);
        const QSize told = renderer.defaultSize();
        answer.reply.fullWidth = std::max(1, told.width());
        answer.reply.fullHeight = std::max(1, told.height());
        answer.reply.count = 1;
        answer.reply.isDrawing = 1;
        return answer;
    }

    Descriptor descriptor;
    QFile device;
    std::unique_ptr<QImageReader> reader;
    QSize room, full;
    bool moves = false;
    int framesSinceBegin = 0, loops = 0, rounds = 0;
};

static qreal sideOf(qreal told)
{
    constexpr qreal least = 8, most = 20'000;
    return std::isfinite(told) ? std::clamp(told, least, most) : least;
}

/// A document of pages (PDF).
class FileDecoder::Document {
public:
    explicit Document(Descriptor file) : descriptor(std::move(file))
    {
        ::lseek(descriptor.get(), 0, SEEK_SET);
        device.open(descriptor.get(), QIODevice::ReadOnly);
        pdf.load(&device);
    }

    Answer pages() const
    {
        Answer answer;
        if (pdf.status() != QPdfDocument::Status::Ready) {
            const QPdfDocument::Error error = pdf.error();
            const bool locked =
                error == QPdfDocument::Error::IncorrectPassword || error == QPdfDocument::Error::UnsupportedSecurityScheme;
            answer.reply.outcome = locked ? Outcome::Locked : Outcome::Failed;
            return answer;
        }
        const int count = std::min(pdf.pageCount(), mostPages);
        for (int page = 0; page < count; page++) {
            const QSizeF size = sizeOf(page);
            const float sides[] = {float(size.width()), float(size.height())};
            answer.pageSizes.append(reinterpret_cast<const char *>(sides), sizeof sides);
        }
        answer.reply.outcome = count > 0 ? Outcome::Done : Outcome::Failed;
        answer.reply.count = count;
        answer.reply.bytes = std::uint64_t(answer.pageSizes.size());
        return answer;
    }

    Answer page(const Request &request)
    {
        Answer answer;
        if (request.page < 0 || request.page >= pdf.pageCount())
            return answer;
        const QSize size = fitted(sizeOf(request.page), roomOf(request));
        if (qint64(size.width()) * size.height() > largestPage)
            return answer;
        const QImage drawn = pdf.render(request.page, size);
        if (drawn.isNull())
            return answer;
        QImage paper(size, QImage::Format_RGB32);
        paper.fill(Qt::white);
        QPainter painter(&paper);
        painter.drawImage(0, 0, drawn);
        painter.end();
        give(answer, paper);
        answer.reply.fullWidth = size.width();
        answer.reply.fullHeight = size.height();
        answer.reply.count = 1;
        return answer;
    }

private:
    /// In points, with sides that a sheet could have: a file may claim anything.
    QSizeF sizeOf(int page) const
    {
        const QSizeF told = pdf.pagePointSize(page);
        return {sideOf(told.width()), sideOf(told.height())};
    }

    Descriptor descriptor;
    QFile device;
    QPdfDocument pdf;
};

FileDecoder::FileDecoder() { QImageReader::setAllocationLimit(decodedMegabytes); }

FileDecoder::~FileDecoder() = default;

FileDecoder::Answer FileDecoder::answer(const Request &request, Descriptor file)
{
    switch (request.wish) {
    case Wish::Picture:
        document.reset();
        picture.reset();
        picture = std::make_unique<Picture>(std::move(file));
        return picture->first(request);
    case Wish::NextFrame: return picture ? picture->frame() : Answer();
    case Wish::Document:
        picture.reset();
        document.reset();
        document = std::make_unique<Document>(std::move(file));
        return document->pages();
    case Wish::Page: return document ? document->page(request) : Answer();
    }
    return {};
}

} // namespace korvane::decoding
