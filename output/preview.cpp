// The preview window: freeglut draws the beauty AOV with the display gamma.
#include "output/preview.h"

#include <GL/freeglut.h>

#include <cmath>
#include <vector>

#include "frame/renderer.h"
#include "output/camera.h"
#include "output/render_loop.h"

namespace {
// The gamma goes onto a copy: the live buffer is never touched, since a negative
// pixel raised to a power and back would come home as a NaN.
std::vector<float> shown;

void closePreview() { saveImage(cameras[renderer.camera].aovs[0].image); }
}  // namespace

void displayPreview() {
  const Camera& camera = cameras[renderer.camera];
  const Image& beauty = camera.aovs[0].image;
  glRasterPos2i(-1, 1);
  glPixelZoom(1, -1);
  const float exponent = 1.0f / renderer.display_gamma;
  shown.resize(beauty.floats.size());
  for (size_t i = 0; i < shown.size(); ++i) shown[i] = std::pow(beauty.floats[i], exponent);
  if (!shown.empty() && size_t(camera.width) * size_t(camera.height) * 3 <= shown.size())
    glDrawPixels(camera.width, camera.height, GL_RGB, GL_FLOAT, shown.data());
  glutSwapBuffers();
  glFlush();
}

void runPreviewWindow() {
  const Camera& camera = cameras[renderer.camera];
  int argc = 1;
  char name[] = "quazel";
  char* argv[] = {name, nullptr};
  glutInit(&argc, argv);
  glutInitWindowSize(camera.width, camera.height);
  glutInitDisplayMode(GLUT_DOUBLE);
  glutCreateWindow("quazel");
  glutDisplayFunc(displayPreview);
  glutIdleFunc(progressiveStep);
  glutCloseFunc(closePreview);
  glutMainLoop();
}
