#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "frontend/Checkup.h"
#include "frontend/Commands.h"

namespace ombra {

namespace {

const char* wordOf(Finding::State state) {
  switch (state) {
    case Finding::State::kGood:
      return "good";
    case Finding::State::kNote:
      return "note";
    case Finding::State::kWrong:
      return "WRONG";
  }
  return "";
}

void tellFinding(const Finding& finding, const Output& output) {
  output.result(
      fmt::format("{:<6} {:<13} {}", wordOf(finding.state), finding.subject, printable(finding.text)));
  if (!finding.todo.empty()) output.result(fmt::format("{:<6} {:<13} {}", "", "", printable(finding.todo)));
}

void tellAsJSON(const std::vector<Finding>& findings, bool isGood, const Output& output) {
  nlohmann::json list = nlohmann::json::array();
  for (const Finding& finding : findings) {
    const char* state = finding.state == Finding::State::kWrong ? "wrong" : wordOf(finding.state);
    list.push_back({{"subject", finding.subject},
                    {"state", state},
                    {"text", printable(finding.text)},
                    {"todo", printable(finding.todo)}});
  }
  output.result(nlohmann::json{{"good", isGood}, {"findings", list}}.dump());
}

}  // namespace

int runDoctor(const DoctorOptions& options, const Output& output) {
  const CheckupPlaces places = CheckupPlaces::ofThisMachine();
  const Interruption interruption;
  const Keyring keyring(places.keyring, interruption, output);
  const std::vector<Finding> findings{
      checkFuseDevice(places),     checkUnmounter(places),  checkVolumesFolder(places),
      checkHelper(places),         checkLoader(places),     checkLeftovers(places),
      checkCacheFolder(places),    checkBus(places),        checkKeyring(keyring),
      checkAgent(places),          checkKnownHosts(places), checkAuthorities(places),
      checkClock(options.endpoint)};
  if (interruption.requested()) return interruption.exitCode();
  const bool isGood = std::none_of(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.state == Finding::State::kWrong;
  });
  if (output.json) {
    tellAsJSON(findings, isGood, output);
  } else {
    for (const Finding& finding : findings) tellFinding(finding, output);
  }
  return isGood ? kExitSuccess : kExitFailure;
}

}  // namespace ombra
