// The install boundary's short cut must answer exactly as resolving every location whole does, whatever
// links, missing folders and files in the way of folders the install holds.

#include "support/TemporaryDirectory.h"
#include "update/InstallPath.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Case {
  std::string name;
  bool inside;
};

// An install with links in every place a name can meet one: to a folder inside, to a folder outside, to the
// install's own parent, to a file outside, nowhere; a file where a folder is expected; and a folder that
// holds no link at all.
void plantTree(const fs::path& install, const fs::path& outside) {
  writeFile(install / "game.bin", "game");
  writeFile(install / "data/d1/f.dat", "f");
  writeFile(install / "data/d2/g.dat", "g");  // a folder that holds no link
  writeFile(outside / "secret", "secret");
  fs::create_directories(outside / "folder");
  fs::create_directory_symlink(install / "data", install / "inward");
  fs::create_directory_symlink(outside / "folder", install / "outward");
  fs::create_directory_symlink(install.parent_path(), install / "up");
  fs::create_symlink(outside / "secret", install / "secret-link");
  fs::create_symlink(outside / "secret", install / "data/d1/secret-link");
  fs::create_symlink(install / "nowhere", install / "dangling");
  fs::create_symlink(outside / "nowhere", install / "dangling-out");
}

}  // namespace

TEST(InstallBoundary, AgreesWithResolvingEachLocationWhole) {
  TemporaryDirectory root;
  const fs::path install = root / "install", outside = root / "outside";
  plantTree(install, outside);
  const std::vector<Case> cases = {
      {"game.bin", true},
      {"data/d1/f.dat", true},
      {"data/d1/new.dat", true},
      {"data/missing/deeper/new.dat", true},
      {"data/new.dat", true},
      {"data/d1", true},
      {"data/d2/g.dat", true},
      {"data/d2/new.dat", true},
      {"inward/d2/g.dat", true},
      {"up/install/data/d2/g.dat", true},
      {"up/outside/folder/new.dat", false},
      {"inward/d1/f.dat", true},
      {"inward/d1/new.dat", true},
      {"outward/new.dat", false},
      {"outward/deeper/new.dat", false},
      {"up/install/game.bin", true},
      {"up/outside/secret", false},
      {"secret-link", false},
      {"data/d1/secret-link", false},
      {"dangling", true},
      {"dangling-out", true},  // a link that leads nowhere is not followed: the name stays where it is spelled
      {"dangling/new.dat", true},
      {"game.bin/below", true},
      {"data//d1/f.dat", true},
      {"outward//new.dat", false},
  };
  zrv::update::InstallBoundary boundary(install);
  for (int pass = 0; pass < 2; ++pass) {  // the second pass answers from the folders resolved in the first
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      EXPECT_EQ(zrv::update::resolvesInside(install, install / c.name), c.inside);
      EXPECT_EQ(boundary.resolvesInside(c.name), c.inside);
    }
  }
}

TEST(InstallBoundary, AnInstallReachedThroughALinkOrRelativelyHasTheSameInside) {
  TemporaryDirectory root;
  const fs::path install = root / "install", outside = root / "outside";
  plantTree(install, outside);
  fs::create_directory_symlink(install, root / "install-link");
  const fs::path previous = fs::current_path();
  fs::current_path(root.path());
  for (const fs::path& base : {fs::path("install"), root / "install-link"}) {
    zrv::update::InstallBoundary boundary(base);
    for (const char* name : {"game.bin", "inward/d1/f.dat", "outward/new.dat", "secret-link", "up/install/x"}) {
      SCOPED_TRACE(base.string() + " " + name);
      EXPECT_EQ(boundary.resolvesInside(name), zrv::update::resolvesInside(base, base / name));
    }
  }
  fs::current_path(previous);
}
