// Tests that build scenes start from a fresh library and leave it empty:
// no objects, shaders, images or welded vertices carry over to the next test.
#pragma once

#include <gtest/gtest.h>

#include "geometry/obj_reader.h"
#include "geometry/object.h"
#include "qz.h"
#include "shading/image.h"
#include "shading/shader.h"
#include "tests/test_util.h"

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
    clearWeldTable();
  }
  static void assemble() {
    captureOutput([] { qzInitializeAccelerator(); });
  }
};
