// The process that decodes, with files as they come from anywhere.
#include "Vorrel/Views/DecoderProcess.h"
#include "Vorrel/Views/Decoding/FileDecoder.h"
#include "tests/support/Await.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QTemporaryDir>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

namespace korvane::test {

using namespace decoding;
using namespace std::string_literals;

namespace {

QImage drawing(int width, int height)
{
    QImage image(width, height, QImage::Format_RGB32);
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            image.setPixel(x, y, qRgb(x * 255 / width, y * 255 / height, (x ^ y) & 255));
    return image;
}

QByteArray encoded(const QImage &image, const char *format)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    EXPECT_TRUE(image.save(&buffer, format)) << format;
    return bytes;
}

QByteArray documentOf(int pages)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QPdfWriter writer(&buffer);
    writer.setPageSize(QPageSize(QPageSize::A5));
    QPainter painter(&writer);
    for (int page = 0; page < pages; page++) {
        if (page > 0)
            writer.newPage();
        painter.drawText(1000, 1000, QStringLiteral("Page %1").arg(page + 1));
        painter.fillRect(1000, 2000, 500, 500, Qt::red);
    }
    painter.end();
    return bytes;
}

/// Two frames of 2 × 1 pixels, red and blue, each shown for half a second.
QByteArray movingPicture()
{
    const auto frame = [](char pixel) {
        return "\x21\xF9\x04\x00\x32\x00\x00\x00"s + "\x2C\x00\x00\x00\x00\x02\x00\x01\x00\x00"s + "\x02\x02"s + pixel
            + "\x0A\x00"s;
    };
    // Codes of three bits: clear, the same colour twice, end.
    return QByteArray::fromStdString("GIF89a\x02\x00\x01\x00\x80\x00\x00\xFF\x00\x00\x00\x00\xFF"s
        + "\x21\xFF\x0BNETSCAPE2.0\x03\x01\x00\x00\x00"s + frame('\x04') + frame('\x4C') + ";");
}

QByteArray svgOf(const QByteArray &inside)
{
    return "<svg xmlns='http://www.w3.org/2000/svg' xmlns:xlink='http://www.w3.org/1999/xlink' width='40' height='20'>" + inside
        + "</svg>";
}

/// A file that stands nowhere.
std::shared_ptr<const Descriptor> fileOf(const QByteArray &bytes)
{
    auto file = std::make_shared<Descriptor>(::memfd_create("preview", MFD_CLOEXEC));
    EXPECT_EQ(::write(file->get(), bytes.constData(), std::size_t(bytes.size())), bytes.size());
    return file;
}

constexpr Request picture{.wish = Wish::Picture, .width = 400, .height = 300};
constexpr Request document{.wish = Wish::Document};

class Decoder : public testing::Test {
protected:
    DecoderProcess::Answer ask(const Request &request, std::shared_ptr<const Descriptor> file = {})
    {
        if (!process || process->ended())
            process = std::make_unique<DecoderProcess>(program);
        return await(loop, process->ask(request, std::move(file)));
    }
    Outcome outcomeOf(const Request &request, const QByteArray &bytes) { return ask(request, fileOf(bytes)).reply.outcome; }
    /// Another program in the decoder's place.
    void useScript(const std::string &line)
    {
        program = scripts.path().toStdString() + "/decoder";
        QFile script(QString::fromStdString(program));
        ASSERT_TRUE(script.open(QIODevice::WriteOnly));
        script.write(QByteArray::fromStdString("#!/bin/sh\n" + line + "\n"));
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    static QRgb pixelOf(const DecoderProcess::Answer &answer, int x, int y)
    {
        return reinterpret_cast<const QRgb *>(answer.bytes.data())[y * answer.reply.width + x];
    }

    QTemporaryDir scripts;
    MainLoop loop;
    std::string program = KORVANE_BINARIES "/korvane-preview";
    std::unique_ptr<DecoderProcess> process;
};

/// A file with some of its bytes changed, left out or repeated.
QByteArray mutated(QByteArray bytes, std::mt19937 &random)
{
    const auto below = [&](qsizetype end) { return qsizetype(random() % std::uint32_t(std::max<qsizetype>(1, end))); };
    const int changes = 1 + int(below(8));
    for (int i = 0; i < changes && !bytes.isEmpty(); i++) {
        // Most of what a decoder believes stands at the beginning.
        const qsizetype at = below(2) ? below(bytes.size()) : below(std::min<qsizetype>(bytes.size(), 64));
        switch (below(5)) {
        case 0: bytes[at] = char(random()); break;
        case 1: bytes[at] = char(0xff); break;
        case 2: bytes.remove(at, below(64)); break;
        case 3: bytes.insert(at, bytes.mid(below(bytes.size()), below(64))); break;
        default: bytes.truncate(std::max<qsizetype>(1, at)); break;
        }
    }
    return bytes;
}

} // namespace

TEST_F(Decoder, APictureComesNoLargerThanAskedForAndTellsItsWholeSize)
{
    for (const char *format : {"PNG", "JPEG", "BMP", "WEBP"}) {
        SCOPED_TRACE(format);
        const auto answer = ask(picture, fileOf(encoded(drawing(1600, 900), format)));
        ASSERT_EQ(answer.reply.outcome, Outcome::Done);
        EXPECT_EQ(answer.reply.fullWidth, 1600);
        EXPECT_EQ(answer.reply.fullHeight, 900);
        EXPECT_EQ(answer.reply.width, 400);
        EXPECT_EQ(answer.reply.height, 225);
        EXPECT_GT(qRed(pixelOf(answer, 390, 10)), 200);
        EXPECT_LT(qRed(pixelOf(answer, 10, 10)), 40);
    }
}

TEST_F(Decoder, ASmallPictureKeepsItsPixels)
{
    const auto answer = ask(picture, fileOf(encoded(drawing(20, 10), "PNG")));
    EXPECT_EQ(answer.reply.width, 20);
    EXPECT_EQ(pixelOf(answer, 7, 3), drawing(20, 10).pixel(7, 3));
}

TEST_F(Decoder, ATurnedPhotographStandsUpright)
{
    // The orientation "turned by 90 degrees", as cameras note it.
    const QByteArray note = QByteArray::fromStdString(
        "\xFF\xE1\x00\x22"s + "Exif\0\0II*\0\x08\0\0\0\x01\0\x12\x01\x03\0\x01\0\0\0\x06\0\0\0\0\0\0\0"s);
    QByteArray bytes = encoded(drawing(800, 400), "JPEG");
    bytes.insert(2, note);
    const auto answer = ask(picture, fileOf(bytes));
    ASSERT_EQ(answer.reply.outcome, Outcome::Done);
    EXPECT_EQ(answer.reply.fullWidth, 400);
    EXPECT_EQ(answer.reply.fullHeight, 800);
    EXPECT_EQ(answer.reply.width, 150);
    EXPECT_EQ(answer.reply.height, 300);
}

TEST_F(Decoder, AMovingPictureGivesItsFramesAgainAndAgain)
{
    const auto first = ask(picture, fileOf(movingPicture()));
    ASSERT_EQ(first.reply.outcome, Outcome::Done);
    EXPECT_EQ(first.reply.count, 2);
    EXPECT_EQ(first.reply.milliseconds, 500);
    Request next = picture;
    next.wish = Wish::NextFrame;
    std::vector<QRgb> seen{pixelOf(first, 0, 0)};
    for (int i = 0; i < 3; i++) {
        const auto frame = ask(next);
        ASSERT_EQ(frame.reply.outcome, Outcome::Done) << i;
        seen.push_back(pixelOf(frame, 0, 0));
    }
    EXPECT_NE(seen[0], seen[1]);
    EXPECT_EQ(seen[0], seen[2]);
    EXPECT_EQ(seen[1], seen[3]);
}

TEST_F(Decoder, ADrawingFillsTheRoomThatItGets)
{
    const auto answer = ask(picture, fileOf(svgOf("<rect width='20' height='20' fill='#ff0000'/>")));
    ASSERT_EQ(answer.reply.outcome, Outcome::Done);
    EXPECT_TRUE(answer.reply.isDrawing);
    EXPECT_EQ(answer.reply.width, 400);
    EXPECT_EQ(answer.reply.height, 200);
    EXPECT_EQ(answer.reply.fullWidth, 40);
    EXPECT_EQ(pixelOf(answer, 100, 100), 0xffff0000);
    EXPECT_EQ(pixelOf(answer, 300, 100), 0U);
}

TEST_F(Decoder, ADrawingBringsNothingFromElsewhere)
{
    EXPECT_FALSE(withoutReferences(svgOf("<image xlink:href='/etc/passwd'/>")).contains("passwd"));
    EXPECT_FALSE(withoutReferences(svgOf("<image href=' http://example.org/a.png'/>")).contains("example"));
    EXPECT_TRUE(withoutReferences(svgOf("<image xlink:href='data:image/png;base64,AAAA'/>")).contains("AAAA"));
    EXPECT_TRUE(withoutReferences(svgOf("<use xlink:href='#a'/>")).contains("#a"));
    EXPECT_TRUE(withoutReferences("<svg><rect></svg>").isEmpty());
    const QByteArray laughs = "<!DOCTYPE svg [<!ENTITY a 'ha'><!ENTITY b '&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;'><!ENTITY c "
                              "'&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;'><!ENTITY d '&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;'><!ENTITY e "
                              "'&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;'>]>"
        + svgOf("<text>&e;</text>");
    EXPECT_TRUE(withoutReferences(laughs).isEmpty());
}

TEST_F(Decoder, ADocumentTellsItsPagesAndGivesEach)
{
    const auto pages = ask(document, fileOf(documentOf(3)));
    ASSERT_EQ(pages.reply.outcome, Outcome::Done);
    EXPECT_EQ(pages.reply.count, 3);
    float sides[2];
    std::memcpy(sides, pages.bytes.data(), sizeof sides);
    EXPECT_NEAR(sides[0], 420, 1);
    EXPECT_NEAR(sides[1], 595, 1);

    const auto page = ask({.wish = Wish::Page, .page = 2, .width = 300, .height = 425});
    ASSERT_EQ(page.reply.outcome, Outcome::Done);
    EXPECT_EQ(page.reply.width, 300);
    EXPECT_TRUE(page.reply.isOpaque);
    EXPECT_EQ(pixelOf(page, 2, 2), 0xffffffff);
    EXPECT_EQ(ask({.wish = Wish::Page, .page = 3, .width = 300, .height = 425}).reply.outcome, Outcome::Failed);
}

TEST_F(Decoder, WhatIsNoPictureFailsAndTheNextFileIsShown)
{
    const QByteArray good = encoded(drawing(200, 100), "PNG");
    const struct {
        const char *why;
        Request request;
        QByteArray bytes;
    } cases[] = {
        {"nothing", picture, {}},
        {"words", picture, "no picture at all"},
        {"the beginning of a picture", picture, good.left(20)},
        {"a document", picture, documentOf(1)},
        {"no document", document, good},
        {"an empty document", document, {}},
        {"half a document", document, documentOf(1).left(60)},
        {"a drawing that does not end", picture, "<svg xmlns='http://www.w3.org/2000/svg'><rect"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(outcomeOf(c.request, c.bytes), Outcome::Failed);
        EXPECT_EQ(outcomeOf(picture, good), Outcome::Done);
    }
}

/// 60,000 pixels on each side of nothing, in a few kilobytes.
TEST_F(Decoder, APictureThatWouldFillTheMemoryIsRefused)
{
    const auto number = [](quint32 value) {
        const char bytes[] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
        return QByteArray(bytes, sizeof bytes);
    };
    const auto sum = [](const QByteArray &bytes) {
        quint32 c = 0xffffffff;
        for (const char byte : bytes) {
            c ^= static_cast<unsigned char>(byte);
            for (int bit = 0; bit < 8; bit++)
                c = c & 1 ? 0xedb88320U ^ (c >> 1) : c >> 1;
        }
        return ~c;
    };
    const auto chunk = [&](const QByteArray &name, const QByteArray &data) {
        return number(quint32(data.size())) + name + data + number(sum(name + data));
    };
    const QByteArray zeros = qCompress(QByteArray(1 << 20, '\0'), 9).mid(4);
    const QByteArray bomb = QByteArray("\x89PNG\r\n\x1a\n", 8)
        + chunk("IHDR", number(60'000) + number(60'000) + QByteArray("\x08\x06\x00\x00\x00", 5)) + chunk("IDAT", zeros)
        + chunk("IEND", {});
    EXPECT_EQ(outcomeOf(picture, bomb), Outcome::Failed);
}

TEST_F(Decoder, HundredsOfBrokenFilesHarmNothing)
{
    const QByteArray still = encoded(drawing(120, 80), "PNG");
    const std::pair<Request, QByteArray> good[] = {
        {picture, still},
        {picture, encoded(drawing(120, 80), "JPEG")},
        {picture, encoded(drawing(60, 40), "WEBP")},
        {picture, encoded(drawing(60, 40), "BMP")},
        {picture, encoded(drawing(60, 40), "ICO")},
        {picture, encoded(drawing(60, 40), "TIFF")},
        {picture, movingPicture()},
        {picture, svgOf("<g transform='rotate(10)'><path d='M1 1L9 9' stroke='red'/><text x='1' y='9'>tide</text></g>")},
        {document, documentOf(2)},
        {document, documentOf(1)},
    };
    std::mt19937 random(20'260'412);
    int done = 0, failed = 0;
    for (int round = 0; round < 30; round++)
        for (const auto &[request, bytes] : good) {
            const QByteArray broken = mutated(bytes, random);
            const auto answer = ask(request, fileOf(broken));
            ASSERT_LE(answer.reply.outcome, Outcome::Locked);
            const bool isDone = answer.reply.outcome == Outcome::Done;
            (isDone ? done : failed)++;
            if (isDone && request.wish == Wish::Document)
                ask({.wish = Wish::Page, .page = 0, .width = 200, .height = 200});
        }
    EXPECT_GT(done, 20) << "some changes do little";
    EXPECT_GT(failed, 20) << "and some a lot";
    EXPECT_EQ(outcomeOf(picture, still), Outcome::Done);
}

/// What the system says of the only child of this process.
static std::string statusOfChild()
{
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream file(entry.path() / "status");
        const std::string status(std::istreambuf_iterator<char>(file), {});
        if (status.find("PPid:\t" + std::to_string(::getpid()) + "\n") != std::string::npos)
            return status;
    }
    return {};
}

TEST_F(Decoder, TheProcessHasGivenUpWhatItDoesNotNeed)
{
    ASSERT_EQ(outcomeOf(picture, encoded(drawing(2, 2), "PNG")), Outcome::Done);
    const std::string status = statusOfChild();
    EXPECT_THAT(status, testing::HasSubstr("korvane-preview"));
    EXPECT_THAT(status, testing::HasSubstr("NoNewPrivs:\t1"));
    EXPECT_THAT(status, testing::HasSubstr("Seccomp:\t2")) << "calls are filtered";
}

TEST_F(Decoder, AFileThatShrinksWhileItIsReadFailsAndNothingElse)
{
    const auto file = fileOf(encoded(drawing(1200, 900), "PNG"));
    ASSERT_EQ(::ftruncate(file->get(), 500), 0);
    EXPECT_EQ(ask(picture, file).reply.outcome, Outcome::Failed);
}

TEST_F(Decoder, AProgramThatIsNotThereFailsEveryRequest)
{
    program = "/nowhere/korvane-preview";
    EXPECT_EQ(outcomeOf(picture, encoded(drawing(2, 2), "PNG")), Outcome::Failed);
    EXPECT_TRUE(process->ended());
}

TEST_F(Decoder, AProgramThatSpeaksNonsenseFailsAndIsEnded)
{
    useScript("head -c 4096 /dev/zero >&0");
    EXPECT_EQ(outcomeOf(picture, encoded(drawing(2, 2), "PNG")), Outcome::Failed);
    EXPECT_TRUE(process->ended());
}

TEST_F(Decoder, EndingItDropsWhatWasAskedWithoutWaiting)
{
    useScript("exec sleep 60");
    process = std::make_unique<DecoderProcess>(program);
    Begun<DecoderProcess::Answer> asked(loop, process->ask(picture, fileOf({})));
    loop.runUntilIdle(); // it is asked now
    process.reset();
    const auto outcome = [&] {
        try {
            return asked.result().reply.outcome;
        } catch (const Cancelled &) {
            return Outcome::Failed;
        }
    };
    EXPECT_EQ(outcome(), Outcome::Failed);
}

TEST(DecoderMessages, AnAnswerMustBeOneThatWasAskedFor)
{
    const Reply good{
        .outcome = Outcome::Done, .width = 40, .height = 30, .fullWidth = 40, .fullHeight = 30, .count = 1, .bytes = 4800};
    EXPECT_TRUE(fits(good, picture));
    const struct {
        const char *why;
        std::function<void(Reply &)> change;
    } lies[] = {
        {"more than asked for", [](Reply &r) { r.width = 401, r.bytes = 401 * 30 * 4; }},
        {"nothing", [](Reply &r) { r.width = 0, r.bytes = 0; }},
        {"less than nothing", [](Reply &r) { r.height = -30; }},
        {"other bytes than pixels", [](Reply &r) { r.bytes = 1ULL << 40; }},
        {"no whole size", [](Reply &r) { r.fullWidth = 0; }},
        {"an outcome that there is not", [](Reply &r) { r.outcome = Outcome(9), r.bytes = 0; }},
        {"bytes behind a failure", [](Reply &r) { r.outcome = Outcome::Failed; }},
    };
    for (const auto &lie : lies) {
        SCOPED_TRACE(lie.why);
        Reply reply = good;
        lie.change(reply);
        EXPECT_FALSE(fits(reply, picture));
    }
    EXPECT_TRUE(fits({.outcome = Outcome::Done, .count = 2, .bytes = 16}, document));
    EXPECT_FALSE(fits({.outcome = Outcome::Done, .count = mostPages + 1, .bytes = (mostPages + 1) * 8}, document));
}

} // namespace korvane::test
