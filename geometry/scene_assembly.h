// The scene: one root object reaching every other object through instances.
#pragma once

#include <cstdint>

#include "frame/vec.h"

extern uint32_t rootObject;
extern Vec3f sceneMin, sceneMax, sceneCenter;
extern float sceneRadius;

// Drops empty objects by exchanging them with the back of the array; the survivors change order.
void removeEmptyObjects();
// Binds instances, chooses the root, prepares every object deepest first and reports the bounds.
void assembleScene();
// Poses and rebuilds moving objects with the pass just finished.
void updateMovingObjects();
