// Shaded images of a mesh traced with four-wide ray packets.
#pragma once

#include <kxgeom/kxgeom.h>

#include "png_writer.h"

namespace kxtool {

struct RenderOptions {
  int width = 800;
  int height = 800;
  /// Viewing direction (from the camera towards the model), in the frame
  /// whose third axis is `upAxis`: (a, b, c) means a along the axis after
  /// up, b along the one after that, c along up.
  kxLinear::Vector view{-1.0, -0.8, -0.6};
  /// The world axis that is up in the image: 0 x, 1 y, 2 z.
  int upAxis = 2;
  /// Vertical field of view in degrees.
  double fovDegrees = 35.0;
  /// Checkerboard the surface by its UVs (cells per unit), when it has them.
  int checkerCells = 0;
  /// When not null, one value per vertex: the surface is coloured by the
  /// value interpolated at each pixel, from blue at `valueRange[0]` to red
  /// at `valueRange[1]`, and a legend with both ends is drawn on the right.
  const std::vector<double>* vertexValues = nullptr;
  double valueRange[2] = {0, 1};
};

/// The range a colour scale should span for `values`: from the 2nd to the
/// 98th percentile of the finite ones (so a few outliers do not wash the
/// rest out), or the full range with `whole`.
void colourRange(const std::vector<double>& values, bool whole, double range[2]);

struct RenderStats {
  double traceSeconds = 0;  // wall time of the tracing
  long long rays = 0;
  int hitPixels = 0;
};

/// Renders `mesh` with a pinhole camera framing its bounding box. The mesh is
/// traced as a copy moved and scaled into the unit ball, so the image does
/// not depend on the model's size or place. Rays are
/// traced as 2x2 pixel packets in nearest-hit mode; the surface normal of
/// each pixel is reconstructed from the hit positions of its neighbours, so
/// the packets never need triangle indices. Rows are split over the shared
/// thread pool. Cancellation is polled once per row band.
Image renderMesh(const kxGeom::CompactMesh& mesh, const RenderOptions& options,
                 kxUtil::Progress& progress, RenderStats& stats);

}  // namespace kxtool
