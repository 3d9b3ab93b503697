// The preview window: shows the beauty AOV of the current camera as it grows.
#pragma once

// Opens the window and hands control to the window system's loop; the passes
// run from its idle callback.
void runPreviewWindow();
void displayPreview();
