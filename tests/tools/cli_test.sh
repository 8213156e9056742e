#!/usr/bin/env bash
# End-to-end tests of the kxgeom tool: every subcommand's output and exit
# status, every error path, and the demo. Usage: cli_test.sh PATH/TO/kxgeom
set -uo pipefail
tool=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0
failed=0

check() {  # check NAME CONDITION...
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAILED: $name"
  fi
}
# run EXPECTED_STATUS ARGS...: runs the tool, keeps stdout/stderr in $out/$err
run() {
  local expected=$1
  shift
  "$tool" "$@" >"$work/out" 2>"$work/err"
  status=$?
  out=$(cat "$work/out")
  err=$(cat "$work/err")
  [ "$status" -eq "$expected" ]
}
contains() { [[ "$1" == *"$2"* ]]; }

# A unit square split into two triangles, in both formats.
cat >"$work/square.obj" <<'OBJ'
v 0 0 0
v 1 0 0
v 1 1 0
v 0 1 0
f 1 2 3
f 1 3 4
OBJ
printf '4 2\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n3 0 1 2\n3 0 2 3\n' >"$work/square.mesh"

check "info runs" run 0 info "$work/square.obj"
check "info counts" contains "$out" "vertices:       4"
check "info triangles" contains "$out" "triangles:      2"
check "info one boundary loop" contains "$out" "boundary loops: 1"
check "info longest edge is the diagonal" contains "$out" "longest edge:   1.41421"
check "info indexed format" run 0 info "$work/square.mesh"

check "convert obj -> mesh" run 0 convert "$work/square.obj" "$work/out.mesh"
check "converted file matches" diff -q "$work/out.mesh" "$work/square.mesh"
check "convert mesh -> obj" run 0 convert "$work/square.mesh" "$work/back.obj"
check "round trip keeps counts" run 0 info "$work/back.obj"
check "round trip keeps triangles" contains "$out" "triangles:      2"

# Two triangles with separate copies of the shared corners weld to 4 vertices.
printf 'v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3\nf 4 5 6\n' >"$work/soup.obj"
check "weld runs" run 0 weld "$work/soup.obj" "$work/welded.obj"
check "weld reports the merge" contains "$out" "4 vertices (6 before)"
check "normals runs" run 0 normals "$work/square.obj" "$work/normals.obj"
check "normals written" grep -q '^vn 0 0 1' "$work/normals.obj"

printf '# query points\n0.5 0.25 2\n2 2 0\n' >"$work/points.txt"
check "closest runs" run 0 closest "$work/square.obj" "$work/points.txt"
check "closest above the square" contains "$out" "0.5 0.25 2 -> 0.5 0.25 0"
check "closest distance" contains "$out" " 2"$'\n'
check "closest beyond the corner" contains "$out" "2 2 0 -> 1 1 0"
check "closest random" run 0 closest "$work/square.obj" --random 5 --threads 2
check "closest random count" [ "$(grep -v '^#' "$work/out" | grep -c -- '->')" -eq 5 ]

check "render runs" run 0 render "$work/square.obj" -o "$work/image.png" --size 64x48 --view 0,0,-1
check "render writes a png" bash -c "head -c 8 '$work/image.png' | od -An -c | grep -q 'P   N   G'"
check "render verbose prints rays per second" run 0 render "$work/square.obj" -o "$work/v.png" --size 16x16 --verbose
check "rays per second line" contains "$err" "rays/s"

# Error paths: one message naming the file, status 1, no partial output.
check "missing file" run 1 info "$work/nope.obj"
check "missing file named" contains "$err" "nope.obj"
printf 'v 0 0 0\nv 1 0 0\nv 0 x 0\nf 1 2 3\n' >"$work/bad.obj"
check "malformed obj" run 1 convert "$work/bad.obj" "$work/bad-out.mesh"
check "malformed obj names the line" contains "$err" "3"
check "no partial output" [ ! -e "$work/bad-out.mesh" ]
printf '3 1\n0 0 0\n1 0 0\n0 1 0\n3 0 1 7\n' >"$work/range.mesh"
check "index out of range" run 1 weld "$work/range.mesh" "$work/range-out.obj"
check "index out of range message" contains "$err" "range.mesh line 5: face refers to missing vertex 7"
check "no output for bad indices" [ ! -e "$work/range-out.obj" ]
check "unwritable output" run 1 convert "$work/square.obj" "$work/no/such/dir/x.obj"
check "unwritable output named" contains "$err" "x.obj"
check "bad points file" bash -c "printf '1 2\n' > '$work/p.txt'"
check "bad points line" run 1 closest "$work/square.obj" "$work/p.txt"
check "bad points line number" contains "$err" "p.txt:1"
check "unknown option" run 2 info "$work/square.obj" --bogus
check "unknown command" run 2 frobnicate
check "no command" run 2
check "help for a command" run 0 render --help
check "help text" contains "$out" "Usage: kxgeom render"
check "version" run 0 --version
check "version text" contains "$out" "kxgeom 0."
check "option=value form" run 0 closest "$work/square.obj" --random=3 --seed=4
check "typed option validated" run 2 closest "$work/square.obj" --random=many
check "unknown output format" run 2 convert "$work/square.obj" "$work/out.xyz"
check "unknown format named" contains "$err" "out.xyz"
check "no output for unknown format" [ ! -e "$work/out.xyz" ]
mkdir "$work/dir.mesh"
check "directory is no mesh" run 1 info "$work/dir.mesh"
check "directory named" contains "$err" "dir.mesh"
: >"$work/empty.obj"
check "empty file is no mesh" run 1 info "$work/empty.obj"

# A square with a repeated triangle, a degenerate one and a flipped one.
cat >"$work/broken.obj" <<'OBJ'
v 0 0 0
v 1 0 0
v 1 1 0
v 0 1 0
f 1 2 3
f 1 3 4
f 3 1 2
f 1 1 2
f 3 4 2
OBJ
check "check runs" run 0 check "$work/broken.obj" --intersections --json
check "check json" python3 -c 'import json,sys; d=json.loads(sys.argv[1]); assert (d["duplicate_triangles"], d["repeated_index_triangles"], d["oriented"]) == (1, 1, False), d' "$out"
check "repair runs" run 0 repair "$work/broken.obj" "$work/fixed.obj" --json
check "repair json" python3 -c 'import json,sys; d=json.loads(sys.argv[1]); assert d["clean"] and d["triangles"] == 3, d' "$out"
check "repaired mesh is clean" run 0 check "$work/fixed.obj"
check "repaired mesh oriented" contains "$out" "consistently oriented        yes"
check "repair bad angle" run 2 repair "$work/broken.obj" "$work/x.obj" --angle 200
check "no output on bad angle" [ ! -e "$work/x.obj" ]

check "fill runs" run 0 fill "$work/fixed.obj" "$work/closed.obj" --quality 1 --json
check "fill json" python3 -c 'import json,sys; d=json.loads(sys.argv[1]); assert (d["holes"], d["filled"], d["refused"]) == (1, 1, 0), d' "$out"
check "filled square is closed" run 0 info "$work/closed.obj"
check "filled square has no boundary" contains "$out" "boundary loops: 0"
check "fill bad quality" run 2 fill "$work/fixed.obj" "$work/y.obj" --quality 7
check "no output on bad quality" [ ! -e "$work/y.obj" ]

check "flatten runs" run 0 flatten "$work/square.obj" "$work/flat.obj" --json
check "flatten json" python3 -c 'import json,sys; d=json.loads(sys.argv[1]); assert d["flipped"] == 0 and d["worst_angle_error_deg"] < 0.01, d' "$out"
check "flattened mesh has UVs" grep -q '^vt ' "$work/flat.obj"
check "checkerboard render" run 0 render "$work/flat.obj" -o "$work/flat.png" --checker 4 --size 64x64
check "flatten refuses a closed mesh" run 1 flatten "$work/closed.obj" "$work/z.obj"
check "flatten refusal names the file" contains "$err" "closed.obj"
check "no output on refusal" [ ! -e "$work/z.obj" ]
check "flatten wants texture coordinates" run 2 flatten "$work/square.obj" "$work/flat.mesh"

check "demo runs" run 0 demo --output "$work/demo"
check "demo writes an image" [ -s "$work/demo/render.png" ]
check "demo writes a report" [ -s "$work/demo/report.txt" ]
check "demo report mentions welding" grep -q "weld" "$work/demo/report.txt"
check "demo report mentions repair" grep -q "repair: .* clean" "$work/demo/report.txt"
check "demo fills its holes" grep -q "holes: 3 cut .* 3 filled" "$work/demo/report.txt"
check "demo flattens a cap" grep -q "flatten: .* laid flat, 0 flipped" "$work/demo/report.txt"
check "demo renders the layout" [ -s "$work/demo/flattened.png" ]
check "demo reduces" grep -q "reduce: 16128 -> 3226 triangles" "$work/demo/report.txt"
check "demo measures" grep -q "measure: volume .* genus 0 -> 0, still closed" "$work/demo/report.txt"

# Every reporting command prints one JSON document with --json.
json_ok() {  # json_ok PYTHON_CONDITION: $out parses and d satisfies the condition
  python3 -c "import json,sys; d=json.loads(sys.argv[1]); assert $1, d" "$out"
}
check "info json" run 0 info "$work/broken.obj" --json
check "info json topology" json_ok 'd["boundary_loops"] == 1 and d["oriented"] is False and d["degenerate_triangles"] == 1'
check "closest json" run 0 closest "$work/square.obj" "$work/points.txt" --json
check "closest json results" json_ok 'abs(d["results"][0]["distance"] - 2) < 1e-9 and d["results"][1]["closest"] == [1, 1, 0]'
for cmd in convert weld normals; do
  check "$cmd json" run 0 $cmd "$work/square.obj" "$work/j-$cmd.ply" --json
  check "$cmd json counts" json_ok 'd["vertices"] == 4 and d["triangles"] == 2'
done
check "render json" run 0 render "$work/square.obj" -o "$work/j.png" --size 32x32 --json
check "render json pixels" json_ok '0 < d["hit_pixels"] < 32 * 32'

check "reduce" run 0 reduce "$work/demo/welded.obj" "$work/reduced.ply" --ratio 0.25 --json
check "reduce json" json_ok 'd["triangles"] <= 0.25 * d["triangles_before"] + 1 and d["stop"] == "target reached" and 0 < d["hausdorff_from_input"] < 0.01'
check "reduce needs a bound" run 2 reduce "$work/demo/welded.obj" "$work/r2.ply"
check "no output without a bound" [ ! -e "$work/r2.ply" ]
check "measure" run 0 measure "$work/demo/welded.obj" --json
check "measure json" json_ok 'd["closed"] and d["genus"] == 0 and d["components"] == 1 and 4.0 < d["volume"] < 4.4'
check "measure open mesh" run 0 measure "$work/square.obj" --json
check "measure open json" json_ok 'not d["closed"] and d["boundary_loops"] == 1 and abs(d["area"] - 1) < 1e-12'
check "compare" run 0 compare "$work/demo/welded.obj" "$work/reduced.ply" --json --image "$work/cmp.png" --size 64x48
check "compare json" json_ok 'd["hausdorff"] == max(d["a_to_b"]["maximum"], d["b_to_a"]["maximum"]) > 0'
check "compare image" [ -s "$work/cmp.png" ]
check "compare with itself" run 0 compare "$work/square.obj" "$work/square.mesh" --json
check "identical meshes are 0 apart" json_ok 'd["hausdorff"] == 0'

check "render by curvature" run 0 render "$work/demo/welded.obj" -o "$work/curv.png" --size 48x48 --color curvature --json
check "curvature range" json_ok 'd["color"] == "curvature" and d["range"][0] < 0 < 1 < d["range"][1] < 3'
check "render by distance" run 0 render "$work/demo/welded.obj" -o "$work/dist.png" --size 48x48 --color=distance --to "$work/demo/smoothed.obj" --json
check "distance range" json_ok 'd["range"][0] == 0 < d["range"][1]'
check "distance needs --to" run 2 render "$work/demo/welded.obj" -o "$work/d2.png" --color distance

# A symlink target is written through; a FIFO is written in place.
printf 'old' >"$work/real.obj"
ln -s real.obj "$work/link.obj"
check "convert through a symlink" run 0 convert "$work/square.mesh" "$work/link.obj"
check "symlink kept" [ -L "$work/link.obj" ]
check "symlink target written" grep -q '^f ' "$work/real.obj"
mkfifo "$work/pipe.obj"
timeout 60 cat "$work/pipe.obj" >"$work/from-pipe.obj" &
check "convert into a FIFO" run 0 convert "$work/square.mesh" "$work/pipe.obj"
wait
check "FIFO kept" [ -p "$work/pipe.obj" ]
check "FIFO carried the mesh" grep -q '^f ' "$work/from-pipe.obj"

# The image does not depend on the model's scale; the up axis turns it.
for s in 0.01 1 100; do
  awk -v s=$s '$1=="v"{printf "v %.9g %.9g %.9g\n",$2*s,$3*s,$4*s; next}{print}' \
    "$work/demo/sample.obj" >"$work/scaled-$s.obj"
  check "render at scale $s" run 0 render "$work/scaled-$s.obj" -o "$work/scaled-$s.png" --size 96x72
done
check "same image at 1/100 scale" python3 "$here/png_diff.py" "$work/scaled-1.png" "$work/scaled-0.01.png" 0.001
check "same image at 100 times" python3 "$here/png_diff.py" "$work/scaled-1.png" "$work/scaled-100.png" 0.001
check "render with y up" run 0 render "$work/scaled-1.obj" -o "$work/y-up.png" --size 96x72 --up y
check "y up is another view" bash -c "! python3 '$here/png_diff.py' '$work/scaled-1.png' '$work/y-up.png' 0.05"

# Ctrl-C during a long command: status 130, neither output nor temporary file.
"$tool" render "$work/demo/sample.obj" -o "$work/interrupted.png" --size 6000x6000 2>/dev/null &
pid=$!
sleep 1
kill -INT $pid
wait $pid
status=$?
check "interrupted status" [ "$status" -eq 130 ]
check "no interrupted output" [ -z "$(ls -A "$work" | grep interrupted)" ]

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
