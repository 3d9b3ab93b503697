/* quazel: the exported functions of libquazel.so.
   A host holds integer indices only; every record lives inside the library. */
#pragma once

#ifdef __cplusplus
#define QZ_API extern "C" __attribute__((visibility("default")))
#else
#define QZ_API __attribute__((visibility("default")))
#include <stdbool.h>
#endif

/* Lifecycle */
QZ_API void qzStartup();
QZ_API void qzInitialize();
QZ_API void qzRender();
QZ_API void qzFinalize();
QZ_API void qzShutdown();
QZ_API void qzGo(const char* directory);
QZ_API void qzLoadScene(const char* directory);
QZ_API void qzRenderPixels(int count, float* pixels, int pass);
QZ_API void qzLoadFile(const char* path);
QZ_API void qzSaveBeauty(const char* path);

/* Per-module preparation and teardown */
QZ_API void qzInitializeAccelerator();
QZ_API void qzFinalizeAccelerator();
QZ_API void qzInitializeCameras();
QZ_API void qzFinalizeCameras();
QZ_API void qzInitializeGaffer();
QZ_API void qzFinalizeGaffer();
QZ_API void qzInitializeShaders();
QZ_API void qzFinalizeShaders();
QZ_API void qzInitializeSkyLight();
QZ_API void qzFinalizeSkyLight();
QZ_API void qzInitializeGeometryLight();
QZ_API void qzFinalizeGeometryLight();
QZ_API void qzInitializeRenderer();
QZ_API void qzFinalizeRenderer();

/* Renderer settings: stored as given, clamped when the renderer is prepared */
QZ_API void qzSetRendererBounce(int bounce);
QZ_API void qzSetRendererResolution(float resolution);
QZ_API void qzSetRendererRadius(float radius);
QZ_API void qzSetRendererSample(int sample);
QZ_API void qzSetRendererRayDepth(int depth);
QZ_API void qzSetRendererPhotonDepth(int depth);
QZ_API void qzSetRendererClamp(float r, float g, float b);
QZ_API void qzSetRendererError(float r, float g, float b);
/* Where the numbers come from: 0 random (hardware numbers, the default), 1 sobol
   (a scrambled low-discrepancy sequence per pixel, the same image for the same seed) */
QZ_API void qzSetRendererSampler(int sampler);
QZ_API void qzSetRendererSeed(unsigned seed);
/* A pixel stops once the relative standard error of its mean is below `threshold`
   (0, the default, traces every pixel in every pass), after at least `passes` passes (16) */
QZ_API void qzSetRendererNoiseThreshold(float threshold);
QZ_API void qzSetRendererMinPasses(int passes);
/* The render ends after the last whole pass that fits in `seconds`; 0: no limit */
QZ_API void qzSetRendererTimeLimit(double seconds);
QZ_API void qzSetDisplayGamma(float gamma);
QZ_API void qzSetPreviewWindow(bool preview);

/* Images */
QZ_API int qzAddImage();
QZ_API void qzSetImageName(int image, const char* name);
QZ_API void qzCreateImage(int image, int width, int height);
QZ_API bool qzLoadImage(int image);
QZ_API bool qzSaveImage(int image);
QZ_API void qzSetImageColor(int image, int x, int y, float r, float g, float b);
#ifdef __cplusplus
QZ_API void qzGetImageColor(int image, int x, int y, float& r, float& g, float& b);
#endif

/* Shaders: `side` is a mask (1 front, 2 back, 3 both), `channel` 0 emission,
   1 diffuse, 2 specular, 3 glossy, 4 roughness, 5 clear coat, 6 clear coat ior,
   7 normal, 8 jitter */
QZ_API int qzAddShader();
QZ_API void qzSetShaderName(int id, const char* name);
QZ_API void qzSetShaderIOR(int id, float ior);
QZ_API void qzSetShaderDensity(int id, float density);
QZ_API void qzSetShaderAverageCosine(int id, float g);
QZ_API void qzSetShaderParticleColor(int id, float r, float g, float b);
QZ_API void qzSetShaderTransmittance(int id, float r, float g, float b);
QZ_API void qzSetShaderRoundCorner(int id, float v);
QZ_API void qzSetShaderSmoothAngle(int id, float v);
QZ_API void qzSetShaderVisibility(int id, int v);
QZ_API void qzSetShaderTwoSided(int id, bool v);
QZ_API void qzSetShaderGeometryLight(int id, int side, bool v);
QZ_API void qzSetShaderColor(int id, int side, int channel, float r, float g, float b);
QZ_API void qzSetShaderShift(int id, int side, int channel, int component, float a, float b, float c);
QZ_API void qzSetShaderFlake(int id, int side, int channel, float r, float g, float b, float p, float q, float s);
QZ_API void qzSetShaderStone(int id, int side, int channel, float a, float b, float c, int level);
QZ_API void qzSetShaderImage(int id, int side, int channel, const char* image, float gamma, const float* color_matrix,
                             const float* uv_matrix);

/* Cameras */
QZ_API void qzSetCameraName(int camera, const char* name);
QZ_API int qzAddCamera();
QZ_API void qzSetCameraProjection(int camera, int projection);
QZ_API void qzSetCameraTime(int camera, float time);
QZ_API void qzSetCameraSample(int camera, int sample);
QZ_API void qzSetCameraResolution(int camera, int width, int height);
QZ_API void qzSetCameraRegion(int camera, int x0, int y0, int x1, int y1);
QZ_API void qzSetCameraExposure(int camera, float r, float g, float b);
QZ_API void qzSetCameraAngleMeasure(int camera, int measure);
QZ_API void qzSetCameraPosition(int camera, float x, float y, float z);
QZ_API void qzSetCameraTarget(int camera, float x, float y, float z);
QZ_API void qzSetCameraUpVector(int camera, float x, float y, float z);
QZ_API void qzSetCameraFOV(int camera, float fov);
QZ_API void qzSetCameraBokeh(int camera, float bokeh);
/* Read back as stored, before preparation clamps them; false when there is no such camera */
QZ_API bool qzGetCameraResolution(int camera, int* width, int* height);
QZ_API bool qzGetCameraRegion(int camera, int* x0, int* y0, int* x1, int* y1);

/* Camera AOVs: element 0 of a camera is its beauty image */
QZ_API int qzAddCameraAOV(int camera);
QZ_API void qzSetCameraAOVName(int camera, int aov, const char* name);
QZ_API void qzSetCameraAOVUserData(int camera, int aov, const char* name);
QZ_API void qzSetCameraAOVChannel(int camera, int aov, int channel);

/* Objects, instances and vertex data.
   Kinds: 1 particles, 2 cylinders, 3 triangles, 4 tetragons. */
QZ_API int qzAddObject();
QZ_API void qzSetObjectName(int object, const char* name);
QZ_API void qzSetObjectMatrix(int object, const float* matrix);
QZ_API void qzSetObjectShader(int object, int kind, int shader);
QZ_API void qzAddPrimitives(int object, int kind, int count, const unsigned* indices);
QZ_API int qzAddVertexData(int object, int kind, const char* name, int count, int dim, const float* data);
QZ_API int qzAddInstance(int object);
QZ_API void qzSetInstance(int object, int instance, int target, const float* matrix);
QZ_API void qzOverrideShader(int object, int instance, const char* from, const char* to);
QZ_API void qzLoadObject(int object, const char* path);

/* Point and parallel lights. A parallel light's direction is the way its light
   travels; a point light's direction is the axis of its spot cone. Angles in degrees. */
QZ_API int qzAddPointLight();
QZ_API void qzSetPointLightPosition(int id, float x, float y, float z);
QZ_API void qzSetPointLightDirection(int id, float x, float y, float z);
QZ_API void qzSetPointLightColor(int id, float r, float g, float b);
QZ_API void qzSetPointLightPhoton(int id, int n);
QZ_API void qzSetPointLightSample(int id, int n);
QZ_API void qzSetPointLightBlur(int id, float v);
QZ_API void qzSetPointLightOffset(int id, float v);
QZ_API void qzSetPointLightInnerAngle(int id, float degrees);
QZ_API void qzSetPointLightOuterAngle(int id, float degrees);
QZ_API void qzSetPointLightLink(int id, int shader_id);
QZ_API int qzAddPointLightAOV(int id);
QZ_API void qzSetPointLightAOVName(int id, int aov, const char* name);
QZ_API void qzSetPointLightAOVChannel(int id, int aov, int channel);
QZ_API int qzAddParallelLight();
QZ_API void qzSetParallelLightDirection(int id, float x, float y, float z);
QZ_API void qzSetParallelLightColor(int id, float r, float g, float b);
QZ_API void qzSetParallelLightPhoton(int id, int n);
QZ_API void qzSetParallelLightSample(int id, int n);
QZ_API void qzSetParallelLightBlur(int id, float v);
QZ_API void qzSetParallelLightOffset(int id, float v);
QZ_API void qzSetParallelLightLink(int id, int shader_id);
QZ_API int qzAddParallelLightAOV(int id);
QZ_API void qzSetParallelLightAOVName(int id, int aov, const char* name);
QZ_API void qzSetParallelLightAOVChannel(int id, int aov, int channel);

/* Geometry light: all surfaces whose shader has geometry_light set, sampled
   together as one area light. An AOV with a shader name takes only that shader's light. */
QZ_API void qzSetGeometryLightPhoton(int n);
QZ_API void qzSetGeometryLightSample(int n);
QZ_API void qzSetGeometryLightShader(int shader_id);
QZ_API void qzSetGeometryLightLink(int shader_id);
QZ_API int qzAddGeometryLightAOV();
QZ_API void qzSetGeometryLightAOVName(int aov, const char* name);
QZ_API void qzSetGeometryLightAOVShaderName(int aov, const char* name);
QZ_API void qzSetGeometryLightAOVChannel(int aov, int channel);

/* Sky light: a constant colour, or an environment image in latitude-longitude form */
QZ_API void qzSetSkyLightImage(const char* name);
QZ_API void qzSetSkyLightBackdrop(const char* name);
QZ_API void qzSetSkyLightPhoton(int n);
QZ_API void qzSetSkyLightSample(int n);
QZ_API void qzSetSkyLightColor(float r, float g, float b);
QZ_API void qzSetSkyLightNorth(float x, float y, float z);
QZ_API void qzSetSkyLightZenith(float x, float y, float z);
QZ_API void qzSetSkyLightShader(int shader_id);
QZ_API void qzSetSkyLightLink(int shader_id);
QZ_API int qzAddSkyLightAOV();
QZ_API void qzSetSkyLightAOVName(int aov, const char* name);
QZ_API void qzSetSkyLightAOVChannel(int aov, int channel);
