#include "tests/desktop/Scene.h"

#include "Vorrel/Views/PaletteInput.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

namespace korvane::test {

Scene::Scene()
{
    const auto make = [this](PaletteController &made) {
        auto one = std::make_unique<QtPaletteWindow>(made, platform(), appearance, *icons);
        window = one.get();
        return one;
    };
    controller = std::make_unique<PaletteController>(*services, make);
    turn();
}

Scene::~Scene()
{
    controller->stop();
    turn();
    controller.reset();
}

void Scene::turn()
{
    for (int i = 0; i < 5; i++) {
        loop.runUntilIdle();
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }
}

bool Scene::waitFor(const std::function<bool()> &done)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > 5000)
            return false;
        turn();
        QThread::msleep(2);
        wait(Milliseconds(2)); // both clocks go on
    }
    return true;
}

void Scene::show()
{
    controller->toggle();
    if (!waitFor([this] { return window->hasKeyboard() && field().hasFocus(); }))
        ADD_FAILURE() << "The palette did not get the keyboard: presented " << controller->presented() << ", visible "
                      << window->visible() << ", active " << window->hasKeyboard() << ", field " << field().hasFocus();
    turn();
}

void Scene::add(CommandResultFields fields)
{
    if (fields.actions.empty()) {
        auto remember = [this, title = fields.title]() -> Task<void> {
            ran.push_back(title);
            return []() -> Task<void> { co_return; }();
        };
        fields.actions = {{.id = "run", .title = "Open", .execute = std::move(remember)}};
    }
    palette().registry.registerCommand(std::make_shared<StaticCommand>(std::move(fields)));
}

std::string Scene::desktopEntry(const std::string &name, const std::string &icon)
{
    const std::string path = folder.path().toStdString() + "/" + icon + ".desktop";
    QFile file(QString::fromStdString(path));
    if (file.open(QIODevice::WriteOnly))
        file.write(
            QByteArray::fromStdString("[Desktop Entry]\nType=Application\nName=" + name + "\nIcon=" + icon + "\nExec=true\n"));
    return path;
}

Row Scene::application(const std::string &name, const std::string &icon, const std::string &subtitle)
{
    CommandResultFields fields;
    fields.id = "app:" + icon;
    fields.title = name;
    if (!subtitle.empty())
        fields.subtitle = subtitle;
    fields.icon = CommandIcon::file(desktopEntry(name, icon));
    fields.actions = {{.id = "open", .title = "Open Application"}};
    return makeRow(std::move(fields));
}

} // namespace korvane::test
