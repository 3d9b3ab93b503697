// A test fixture for whole scenes built through the exports and assembled quietly.
#pragma once

#include <gtest/gtest.h>

#include "geometry/object.h"
#include "qz.h"
#include "shading/image.h"
#include "tests/test_util.h"

// Each test starts from an empty scene with the startup shader and tables.
class SceneTest : public testing::Test {
 protected:
  void SetUp() override {
    objects.clear();
    quietStartup();
  }
  void TearDown() override {
    qzFinalizeAccelerator();
    qzFinalizeShaders();
    freeImages();
  }
  static void assemble() {
    captureOutput([] { qzInitializeAccelerator(); });
  }
};
