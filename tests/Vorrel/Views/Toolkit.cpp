// Drawing with letters and making widgets needs the toolkit's application; these need no screen.
#include <gtest/gtest.h>

#include <QApplication>

namespace korvane::test {

namespace {

class Toolkit : public testing::Environment {
public:
    void SetUp() override
    {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        application = std::make_unique<QApplication>(count, words);
        QApplication::setQuitOnLastWindowClosed(false);
    }
    void TearDown() override { application.reset(); }

private:
    int count = 1;
    char name[6] = "tests";
    char *words[2] = {name, nullptr};
    std::unique_ptr<QApplication> application;
};
[[maybe_unused]] const auto *toolkit = testing::AddGlobalTestEnvironment(new Toolkit);

} // namespace

} // namespace korvane::test
