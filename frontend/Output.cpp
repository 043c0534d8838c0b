#include "frontend/Output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace ombra {

void Output::result(std::string_view line) const {
  fmt::print(out, "{}\n", line);
  fflush(out);
}

void Output::remark(std::string_view line) const {
  if (!json && isatty(fileno(out)) == 1) result(line);
}

void Output::warning(std::string_view line) const { fmt::print(err, "ombra: {}\n", printable(line)); }

int Output::fail(const Failure& failure) const {
  if (json) {
    const nlohmann::json object = {{"error",
                                    {{"code", static_cast<int>(failure.code)},
                                     {"what", printable(failure.what)},
                                     {"why", printable(failure.why)},
                                     {"todo", printable(failure.todo)}}}};
    result(object.dump());
  }
  fmt::print(err, "ombra: {}\n", failure.text());
  return failure.code;
}

}  // namespace ombra
