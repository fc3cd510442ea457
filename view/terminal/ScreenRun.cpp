#include "terminal/ScreenRun.hpp"

#include "terminal/ScreenApplication.hpp"

namespace view {

Outcome<> runScreen(const CommandLine& line) {
  ScreenApplication application(line);
  return application.run();
}

}  // namespace view
