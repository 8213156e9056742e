// The commands that reduce and measure meshes: reduce, measure and compare.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "json.h"
#include "render.h"

namespace kxtool {

namespace {

const char* stopName(kxGeom::MeshReduceStop stop) {
  switch (stop) {
    case kxGeom::MeshReduceStop::TargetReached:
      return "target reached";
    case kxGeom::MeshReduceStop::ErrorBound:
      return "error bound";
    case kxGeom::MeshReduceStop::Exhausted:
      return "no further collapse allowed";
  }
  return "";
}

// Distances from `a`'s vertices and triangle samples to `b`, failing on
// cancellation or a mesh that yields none.
kxGeom::MeshDeviation deviation(const kxGeom::CompactMesh& a, const kxGeom::CompactMesh& b,
                                double spacing, const std::string& what,
                                std::vector<double>* vertexDistances = nullptr) {
  TerminalProgress progress;
  progress.setCaption(("Measuring " + what).c_str());
  kxGeom::MeshDeviationOptions options;
  options.sampleSpacing = spacing;
  kxGeom::MeshDeviation result;
  kx::vector<double> distances;
  const bool ok = kxGeom::meshDeviation(a, b, options, result, progress,
                                        vertexDistances ? &distances : nullptr);
  throwIfInterrupted();
  if (!ok) throw Failure(what + ": no distance to measure (a mesh without finite triangles)");
  if (vertexDistances) vertexDistances->assign(distances.begin(), distances.end());
  return result;
}

Json deviationJson(const kxGeom::MeshDeviation& d) {
  Json j;
  j.set("maximum", d.maximum).set("mean", d.mean).set("rms", d.rms);
  return j.set("points", static_cast<long long>(d.points));
}

}  // namespace

int runReduce(const ReduceOptions& o) {
  checkMeshOutput(o.output);
  kxGeom::MeshReduceOptions options;
  options.targetTriangles = o.triangles;
  options.targetFraction = o.ratio;
  if (o.error > 0) options.maxError = o.error;
  options.placement =
      o.endpoint ? kxGeom::MeshReducePlacement::Endpoint : kxGeom::MeshReducePlacement::Optimal;
  options.boundary =
      o.weightedBoundary ? kxGeom::MeshReduceBoundary::Weighted : kxGeom::MeshReduceBoundary::Keep;
  options.maxNormalChange = o.maxNormalChange;
  const kxGeom::CompactMesh input = readMesh(o.input);
  kxGeom::CompactMesh mesh = input;
  TerminalProgress progress;
  progress.setCaption("Collapsing edges");
  const kxGeom::MeshReduceResult r = kxGeom::meshReduce(mesh, options, progress);
  throwIfInterrupted();
  if (r.status == kxGeom::MeshReduceStatus::Invalid) {
    throw Failure(o.input + ": a triangle names a vertex that does not exist");
  }
  const kxGeom::MeshDeviation moved =
      mesh.getNumTriangles() > 0 ? deviation(input, mesh, 0, o.input) : kxGeom::MeshDeviation();
  writeMesh(mesh, o.output);
  if (o.json) {
    Json j;
    j.set("triangles_before", r.trianglesBefore).set("triangles", r.trianglesAfter);
    j.set("vertices_before", r.verticesBefore).set("vertices", r.verticesAfter);
    j.set("collapses", r.collapses).set("max_quadric_error", r.maxError);
    j.set("stop", stopName(r.stop)).set("hausdorff_from_input", moved.maximum);
    j.set("mean_distance_from_input", moved.mean).print();
  } else {
    std::printf(
        "reduced %d triangles to %d (%s), %d collapses, largest quadric error %.4g; input "
        "vertices lie within %.4g of the result (mean %.4g); wrote %s\n",
        r.trianglesBefore, r.trianglesAfter, stopName(r.stop), r.collapses, r.maxError,
        moved.maximum, moved.mean, o.output.path.c_str());
  }
  return 0;
}

int runMeasure(const MeasureOptions& o) {
  const kxGeom::CompactMesh mesh = readMesh(o.input);
  kxGeom::MeshMassProperties m;
  const bool solid = kxGeom::meshMassProperties(mesh, m);
  const kxGeom::MeshTopologyReport t = kxGeom::meshTopologyReport(mesh);
  if (o.json) {
    Json j;
    j.set("area", m.area).set("volume", m.volume).set("closed", m.closed);
    if (solid) {
      j.set("centroid", m.centroid.x, m.centroid.y, m.centroid.z);
      Json inertia;
      for (const auto& row : m.inertia) {
        Json r;
        for (double v : row) r.push(v);
        inertia.push(r);
      }
      j.set("inertia", inertia);
    }
    j.set("components", t.components).set("boundary_loops", t.boundaryLoops);
    if (t.genus >= 0) j.set("genus", t.genus);
    j.print();
    return 0;
  }
  std::printf("area:           %.9g\nvolume:         %.9g%s\n", m.area, m.volume,
              m.closed ? "" : " (the mesh is not closed: volume and below are not a solid's)");
  if (solid) {
    std::printf("centroid:       (%.9g, %.9g, %.9g)\n", m.centroid.x, m.centroid.y, m.centroid.z);
    for (int i = 0; i < 3; ++i) {
      std::printf("%s(%.6g, %.6g, %.6g)\n",
                  i ? "                " : "inertia:        ", m.inertia[i][0], m.inertia[i][1],
                  m.inertia[i][2]);
    }
  }
  std::printf("components:     %d\nboundary loops: %d\n", t.components, t.boundaryLoops);
  if (t.genus >= 0) {
    std::printf("genus:          %d\n", t.genus);
  } else {
    std::printf("genus:          undefined (not an oriented manifold)\n");
  }
  return 0;
}

void colourValues(const RenderCommandOptions& o, const kxGeom::CompactMesh& mesh,
                  std::vector<double>& values, double range[2]) {
  if (o.colour == "distance") {
    const kxGeom::MeshDeviation d = deviation(mesh, readMesh(o.reference), 0, o.input, &values);
    range[0] = 0;
    range[1] = d.maximum;
    return;
  }
  kx::vector<kxGeom::MeshVertexCurvature> curvature;
  if (!kxGeom::meshCurvature(mesh, curvature)) throw Failure(o.input + ": no triangles");
  values.resize(curvature.size());
  for (std::size_t i = 0; i < curvature.size(); ++i) values[i] = curvature[i].mean;
  colourRange(values, false, range);
}

int runCompare(const CompareOptions& o) {
  if (!o.image.empty() && o.image.size() < 4) throw UsageError(o.image + ": name a .png file");
  const kxGeom::CompactMesh a = readMesh(o.a);
  const kxGeom::CompactMesh b = readMesh(o.b);
  std::vector<double> distances;
  const kxGeom::MeshDeviation ab =
      deviation(a, b, o.spacing, o.a, o.image.empty() ? nullptr : &distances);
  const kxGeom::MeshDeviation ba = deviation(b, a, o.spacing, o.b);
  const double hausdorff = std::max(ab.maximum, ba.maximum);
  if (!o.image.empty()) {
    RenderOptions render;
    render.width = o.width;
    render.height = o.height;
    render.vertexValues = &distances;
    render.valueRange[0] = 0;
    render.valueRange[1] = ab.maximum;
    renderToPng(a, render, o.image);
  }
  if (o.json) {
    Json j;
    j.set("hausdorff", hausdorff).set("a_to_b", deviationJson(ab)).set("b_to_a", deviationJson(ba));
    j.print();
  } else {
    std::printf("Hausdorff distance: %.6g\n", hausdorff);
    std::printf("%s to %s: max %.6g, mean %.6g, RMS %.6g over %lld points\n", o.a.c_str(),
                o.b.c_str(), ab.maximum, ab.mean, ab.rms, static_cast<long long>(ab.points));
    std::printf("%s to %s: max %.6g, mean %.6g, RMS %.6g over %lld points\n", o.b.c_str(),
                o.a.c_str(), ba.maximum, ba.mean, ba.rms, static_cast<long long>(ba.points));
  }
  return 0;
}

}  // namespace kxtool
