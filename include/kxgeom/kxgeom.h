// kxgeom: geometry algorithms for interactive 3D modelling.
//
// The umbrella header: includes every public header of the library,
// the platform types included.
#pragma once

// Platform: linear algebra, containers, services and the mesh model.
#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/octree.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/polyline.h>
#include <kxgeom/platform/progress.h>
#include <kxgeom/platform/random.h>
#include <kxgeom/platform/remap.h>
#include <kxgeom/platform/strings.h>
#include <kxgeom/platform/threads.h>
#include <kxgeom/platform/topomesh.h>

// Mesh services.
#include <kxgeom/adjacency.h>
#include <kxgeom/bounds.h>
#include <kxgeom/mesh_file.h>
#include <kxgeom/mesh_io.h>
#include <kxgeom/normals.h>
#include <kxgeom/primitives.h>
#include <kxgeom/topology_report.h>
#include <kxgeom/weld.h>

// Spatial queries.
#include <kxgeom/closest_point.h>
#include <kxgeom/deviation.h>
#include <kxgeom/octree_query.h>
#include <kxgeom/predicates.h>
#include <kxgeom/quad_ray.h>
#include <kxgeom/query_shapes.h>
#include <kxgeom/ray_query.h>
#include <kxgeom/ray_tracer.h>

// Repair.
#include <kxgeom/dihedral_angles.h>
#include <kxgeom/edge_swap.h>
#include <kxgeom/hole_fill.h>
#include <kxgeom/mesh_cache.h>
#include <kxgeom/mesh_intersect.h>
#include <kxgeom/mesh_modify.h>
#include <kxgeom/mesh_select.h>
#include <kxgeom/orientation.h>
#include <kxgeom/repair.h>

// Smoothing, reduction and measures, numerics and flattening, clipping and
// cutting, planar tests and polygon triangulation, sampling.
#include <kxgeom/clip.h>
#include <kxgeom/conjugate_gradient.h>
#include <kxgeom/cut_surface.h>
#include <kxgeom/measure.h>
#include <kxgeom/planar.h>
#include <kxgeom/reduce.h>
#include <kxgeom/reparameterize.h>
#include <kxgeom/sampling.h>
#include <kxgeom/smoothing.h>
#include <kxgeom/sparse.h>
#include <kxgeom/triangulate_polygon.h>
