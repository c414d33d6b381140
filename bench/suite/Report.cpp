#include "Report.h"

#include <cstdio>
#include <fstream>
#include <sstream>

std::string fixed(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string yesNo(bool met) { return met ? "yes" : "**no**"; }

std::string peaks(double zrvMiB, double peerMiB) { return fixed(zrvMiB, 1) + " / " + fixed(peerMiB, 1); }

std::string loadAverage() {
  std::ifstream file("/proc/loadavg");
  std::string one, five, fifteen;
  file >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

namespace {

// A cell's own "|" would end the cell.
std::string cell(const std::string& text) {
  std::string out;
  for (char c : text) out += c == '|' ? std::string("\\|") : std::string(1, c);
  return out;
}

}  // namespace

void printTable(const std::vector<Row>& rows) {
  std::printf("| work | peer | pairs | ratio min | ratio median | goal | met? | peak MiB zrv / peer |\n");
  std::printf("|---|---|---|---|---|---|---|---|\n");
  for (const auto& row : rows) {
    std::printf("| %s | %s | %s | %s | %s | %s | %s | %s |\n", cell(row.work).c_str(), cell(row.peer).c_str(),
                cell(row.pairs).c_str(), cell(row.ratioMin).c_str(), cell(row.ratioMedian).c_str(), cell(row.goal).c_str(),
                cell(row.met).c_str(), cell(row.peak).c_str());
  }
  std::fflush(stdout);
}
