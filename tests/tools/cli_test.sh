#!/usr/bin/env bash
# End-to-end tests of the kxgeom tool: every subcommand's output and exit
# status, every error path, and the demo. Usage: cli_test.sh PATH/TO/kxgeom
set -uo pipefail
tool=$1
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
check "weld reports the merge" contains "$out" "welded 6 vertices into 4"
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
check "unknown option" run 1 info "$work/square.obj" --bogus
check "unknown command" run 2 frobnicate
check "help for a command" run 0 render --help
check "help text" contains "$out" "usage: kxgeom render"

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
check "repair bad angle" run 1 repair "$work/broken.obj" "$work/x.obj" --angle 200
check "no output on bad angle" [ ! -e "$work/x.obj" ]

check "fill runs" run 0 fill "$work/fixed.obj" "$work/closed.obj" --quality 1 --json
check "fill json" python3 -c 'import json,sys; d=json.loads(sys.argv[1]); assert (d["holes"], d["filled"], d["refused"]) == (1, 1, 0), d' "$out"
check "filled square is closed" run 0 info "$work/closed.obj"
check "filled square has no boundary" contains "$out" "boundary loops: 0"
check "fill bad quality" run 1 fill "$work/fixed.obj" "$work/y.obj" --quality 7
check "no output on bad quality" [ ! -e "$work/y.obj" ]

check "flatten runs" run 0 flatten "$work/square.obj" "$work/flat.obj" --json
check "flatten json" python3 -c 'import json,sys; d=json.loads(sys.argv[1]); assert d["flipped"] == 0 and d["worst_angle_error_deg"] < 0.01, d' "$out"
check "flattened mesh has UVs" grep -q '^vt ' "$work/flat.obj"
check "checkerboard render" run 0 render "$work/flat.obj" -o "$work/flat.png" --checker 4 --size 64x64
check "flatten refuses a closed mesh" run 1 flatten "$work/closed.obj" "$work/z.obj"
check "flatten refusal names the file" contains "$err" "closed.obj"
check "no output on refusal" [ ! -e "$work/z.obj" ]
check "flatten wants OBJ" run 1 flatten "$work/square.obj" "$work/flat.mesh"

check "demo runs" run 0 demo --output "$work/demo"
check "demo writes an image" [ -s "$work/demo/render.png" ]
check "demo writes a report" [ -s "$work/demo/report.txt" ]
check "demo report mentions welding" grep -q "weld" "$work/demo/report.txt"
check "demo report mentions repair" grep -q "repair: .* clean" "$work/demo/report.txt"
check "demo fills its holes" grep -q "holes: 3 cut .* 3 filled" "$work/demo/report.txt"
check "demo flattens a cap" grep -q "flatten: .* laid flat, 0 flipped" "$work/demo/report.txt"
check "demo renders the layout" [ -s "$work/demo/flattened.png" ]

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
