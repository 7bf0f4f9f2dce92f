#include "Vorrel/Platform/Linux/ShortcutFolder.h"

#include "Support/ChildProcess.h"

#include <algorithm>

int main(int count, char **words)
{
    korvane::keepEndedChildren();
    return korvane::runShortcutsTool({words + std::min(count, 1), words + count});
}
