// SPDX-License-Identifier: MIT
#include "tool/Tool.h"

#include <exception>
#include <ostream>

#include "tool/App.h"
#include "tool/Session.h"
#include "tool/chips/Chips.h"

namespace tool {

int runTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  try {
    App app;
    registerChips(app);
    return app.run(argc, argv, out, err);
  } catch (const std::exception& error) {
    report(err, error.what());
    return 1;
  }
}

}  // namespace tool
