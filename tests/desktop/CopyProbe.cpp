#include "Support/MainLoop.h"
#include "Vorrel/Platform/Linux/XcbPasteboard.h"
#include "tests/support/Await.h"

#include <cstdlib>

/// Puts its one argument on the clipboard and ends: copy_probe TEXT
int main(int count, char **words)
{
    using namespace korvane;
    const char *display = std::getenv("DISPLAY");
    MainLoop loop;
    ThreadPool pool(1);
    XcbPasteboard pasteboard(pool.executor(), display ? display : "");
    const bool copied = count == 2 && test::await(loop, pasteboard.setText(words[1]));
    return copied ? 0 : 1;
}
