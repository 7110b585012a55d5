// CLI11's App by its name alone. Most files that include this need no more of it, and the whole of CLI11 takes a
// compiler seconds.
#pragma once

namespace CLI {  // NOLINT(readability-identifier-naming): not ours
class App;
}  // namespace CLI
