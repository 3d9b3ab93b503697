// The emitter tables of an object: what emits light, and what the geometry
// light samples, each with a cumulative table over the areas.
#pragma once

struct Object;

// Prepares the shaders of the primitives as a side effect.
void buildEmitterTables(Object& object);
