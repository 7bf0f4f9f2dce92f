#include "Vorrel/Platform/Linux/ShortcutFolder.h"

#include <algorithm>

int main(int count, char **words) { return korvane::runShortcutsTool({words + std::min(count, 1), words + count}); }
