#include "Vorrel/AI/NativeTools.h"

namespace korvane {

void NativeTools::registerTools(ToolRegistry &, AppServices &) { }

} // namespace korvane
