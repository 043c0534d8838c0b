
#include <algorithm>
#include <array>

#include "frontend/Commands.h"
#include "frontend/VolumeObject.h"
#include "frontend/Volumes.h"

namespace ombra {

namespace {

using Row = std::array<std::string, 5>;

// The width that a text takes, with one column per character: enough to line columns up.
size_t widthOf(const std::string& text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

Row rowOf(const Volume& volume) {
  return {printable(volume.name), printable(volume.mountPath.empty() ? "-" : volume.mountPath),
          printable(volume.protocol), printable(volume.server()),
          volume.state == "mounted" ? std::string() : "(" + printable(volume.state) + ")"};
}

// The columns lined up, two blanks apart, without blanks at the ends of lines.
void tellTable(const std::vector<Volume>& volumes, const Output& output) {
  std::vector<Row> rows;
  std::transform(volumes.begin(), volumes.end(), std::back_inserter(rows), rowOf);
  std::array<size_t, std::tuple_size_v<Row>> widths{};
  for (const Row& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
  }
  for (const Row& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i)
      line += row[i] + std::string(widths[i] - widthOf(row[i]) + 2, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    output.result(line);
  }
}

}  // namespace

int runList(const Output& output) {
  const std::vector<Volume> volumes = currentVolumes();
  if (output.json) {
    output.result(volumesText(volumes));
  } else if (volumes.empty()) {
    output.remark("Nothing is mounted. To mount a folder: ombra mount URL");
  } else {
    tellTable(volumes, output);
  }
  return kExitSuccess;
}

}  // namespace ombra
