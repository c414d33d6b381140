#include "demo/SampleGame.h"

#include <ZRVKit/SSZipArchive.h>

#include <fstream>
#include <random>
#include <stdexcept>
#include <string>

namespace fs = std::filesystem;

namespace demo {
namespace {

void write(const fs::path& file, const std::string& contents) {
  fs::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << contents;
  if (!out) throw std::runtime_error("cannot write " + file.string());
}

// World data: records with a little noise, so that patches are small and compression does something.
std::string worldData(unsigned seed, std::size_t size) {
  std::mt19937 random(seed);
  std::string data;
  data.reserve(size);
  while (data.size() < size) {
    data += "district=" + std::to_string(random() % 40) + ";tide=" + std::to_string(random() % 12) + ";";
    for (int i = 0; i < 24; ++i) data += static_cast<char>('a' + random() % 26);
    data += '\n';
  }
  data.resize(size);
  return data;
}

std::string gameProgram(int build) {
  return "#!/bin/sh\n"
         "# The Quillmoor sample game, build " + std::to_string(build) + ": it shows what the launcher handed it.\n"
         "echo \"  Quillmoor sample game, build " + std::to_string(build) + "\"\n"
         "echo \"    game server:      ${ZRV_GAMESERVER:-(none)}\"\n"
         "echo \"    play cookie:      ${#ZRV_PLAYCOOKIE} characters (not shown)\"\n"
         "echo \"    keep the cookie:  ${ZRV_PERSISTCOOKIE:-(none)}\"\n"
         "echo \"    working folder:   $(pwd)\"\n"
         "echo \"    library path:     ${LD_LIBRARY_PATH:-(none)}\"\n"
         "exit 0\n";
}

}  // namespace

void writeSampleBuilds(const fs::path& v1, const fs::path& v2) {
  std::string world = worldData(1, 600 * 1024);
  std::string nextWorld = world;
  nextWorld.replace(200000, 9, "tide=99;x");  // a few changed bytes and an inserted block
  nextWorld.insert(400000, worldData(2, 8 * 1024));
  std::string music = worldData(3, 200 * 1024);

  write(v1 / "Quillmoor", gameProgram(1));
  write(v1 / "world.pak", world);
  write(v1 / "music.pak", music);
  write(v1 / "data" / "districts.txt", "Northwing\nEastwing\nSouthwing\nWestwing\n");

  write(v2 / "Quillmoor", gameProgram(2));
  write(v2 / "world.pak", nextWorld);
  write(v2 / "music.pak", music);
  write(v2 / "data" / "districts.txt", "Northwing\nEastwing\nSouthwing\nWestwing\n");
  write(v2 / "patchnotes.txt", "Build 2: the tides of Westwing run higher.\n");
}

void writeFrameworkArchive(const fs::path& archive) {
  fs::create_directories(archive.parent_path());
  SSZipArchive zip(archive);
  if (!zip.open()) throw std::runtime_error("cannot write " + archive.string());
  std::string binary = "Cg framework stand-in\n";
  std::string info = "<plist><dict><key>CFBundleName</key><string>Cg</string></dict></plist>\n";
  zip.writeData(ZRVData(binary.begin(), binary.end()), "Cg.framework/Cg");
  zip.writeData(ZRVData(info.begin(), info.end()), "Cg.framework/Resources/Info.plist");
  zip.close();
}

void writeLauncherFrameworks(const fs::path& archive) {
  fs::create_directories(archive.parent_path());
  SSZipArchive zip(archive);
  if (!zip.open()) throw std::runtime_error("cannot write " + archive.string());
  std::string library = "libquill stand-in\n";
  zip.writeData(ZRVData(library.begin(), library.end()), "Libraries.bundle/libquill.so.txt");
  zip.writeData(ZRVData(library.begin(), library.end()), "Frameworks/Quill.framework/Quill");
  zip.close();
}

void writeGameSettings(const fs::path& file) {
  write(file,
        "{\n"
        "  \"video\": {\"antialiasing\": 0, \"resolution\": \"1920x1080\", \"vsync\": true},\n"
        "  \"audio\": {\"music\": true, \"sfx\": true, \"volume\": 80},\n"
        "  \"controls\": {\"invertMouse\": false}\n"
        "}\n");
}

}  // namespace demo
