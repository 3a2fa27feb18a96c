// The relevance runner's grading: which hit counts as the one meant, when a rate fails its threshold,
// how a set entry that no longer holds in its tree is caught, and how a tree's root is found.
import assert from "node:assert/strict";
import { mkdirSync, mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";
import { belowThresholds, checkExpectations, grade, hitMatches, resolveRoot } from "../../bench/relevance.mjs";

const hit = (name, path, line, extra = {}) => ({ name, kind: "function", path, line, end_line: line, scope: null, ...extra });

test("a hit is the one meant by path, name, and line or scope when given", () => {
  const cases = [
    ["same path and name", hit("run", "subprocess.py", 506), { path: "subprocess.py", name: "run" }, true],
    ["other path", hit("run", "asyncio/runners.py", 160), { path: "subprocess.py", name: "run" }, false],
    ["name differs in case", hit("Run", "subprocess.py", 506), { path: "subprocess.py", name: "run" }, false],
    ["line on the hit's first line", hit("run", "r.py", 160), { path: "r.py", name: "run", line: 160 }, true],
    ["line inside the hit's lines", hit("io_context", "i.hpp", 190, { end_line: 600 }), { path: "i.hpp", name: "io_context", line: 195 }, true],
    ["line after the hit's lines", hit("run", "r.py", 86, { end_line: 120 }), { path: "r.py", name: "run", line: 160 }, false],
    ["line before the hit", hit("run", "r.py", 161, { end_line: 170 }), { path: "r.py", name: "run", line: 160 }, false],
    ["no scope, empty wanted", hit("main", "main.cpp", 234), { path: "main.cpp", name: "main", scope: "" }, true],
    ["a scope, empty wanted", hit("main", "main.cpp", 51, { scope: "Cli" }), { path: "main.cpp", name: "main", scope: "" }, false],
    ["no hit", undefined, { path: "main.cpp", name: "main" }, false],
  ];
  for (const [what, h, want, expected] of cases) assert.equal(hitMatches(h, want), expected, what);
});

test("grading finds the meant hit among the five and accepts any of the alternatives", () => {
  const query = { expect: [{ path: "stdlib.h", name: "malloc" }, { path: "malloc.h", name: "malloc" }] };
  const other = hit("malloc", "jemalloc.h", 1);
  const cases = [
    ["first", [hit("malloc", "stdlib.h", 540), other], { first: true, top5: true, rank: 0 }],
    ["the alternative first", [hit("malloc", "malloc.h", 38)], { first: true, top5: true, rank: 0 }],
    ["fifth", [other, other, other, other, hit("malloc", "stdlib.h", 540)], { first: false, top5: true, rank: 4 }],
    ["absent", [other, other], { first: false, top5: false, rank: -1 }],
    ["no answer", [], { first: false, top5: false, rank: -1 }],
  ];
  for (const [what, hits, expected] of cases) {
    const g = grade(query, hits);
    assert.deepEqual({ first: g.first, top5: g.top5, rank: g.rank }, expected, what);
    assert.equal(g.got, hits[0] ?? null, what);
  }
});

test("a rate below its recorded threshold fails, one at it passes", () => {
  const row = (first, top5, thresholds) => ({ tree: "go", set: "dev", n: 20, first: [first], top5: [top5], thresholds });
  const cases = [
    ["both at their thresholds", row(9, 11, { first: 0.45, top5: 0.55 }), 0],
    ["both above", row(18, 20, { first: 0.45, top5: 0.55 }), 0],
    ["first one below", row(8, 11, { first: 0.45, top5: 0.55 }), 1],
    ["both below", row(8, 10, { first: 0.45, top5: 0.55 }), 2],
    ["no thresholds recorded", row(0, 0, undefined), 0],
  ];
  for (const [what, r, failures] of cases) assert.equal(belowThresholds(r).length, failures, what);
});

test("an expectation that the tree no longer holds is reported", () => {
  const root = mkdtempSync(join(tmpdir(), "relevance-"));
  try {
    writeFileSync(join(root, "a.h"), "void *xmalloc(size_t);\nextern void *malloc (size_t __size);\n$ZodType x;\n");
    const cases = [
      ["name in the file", { path: "a.h", name: "malloc" }, 0],
      ["name on its line", { path: "a.h", name: "malloc", line: 2 }, 0],
      ["a name with a dollar sign", { path: "a.h", name: "$ZodType" }, 0],
      ["only inside a longer name", { path: "a.h", name: "xmallo" }, 1],
      ["not on the line given", { path: "a.h", name: "malloc", line: 1 }, 1],
      ["line past the end", { path: "a.h", name: "malloc", line: 40 }, 1],
      ["no such file", { path: "b.h", name: "malloc" }, 1],
    ];
    for (const [what, want, problems] of cases) assert.equal(checkExpectations(root, { expect: [want] }).length, problems, what);
  } finally {
    rmSync(root, { recursive: true, force: true });
  }
});

test("a tree's root is found through a wildcard in one component, and missing is null", () => {
  const base = mkdtempSync(join(tmpdir(), "relevance-"));
  try {
    mkdirSync(join(base, "rustc-1.63.0", "library"), { recursive: true });
    writeFileSync(join(base, "rustc-notes"), "");
    assert.equal(resolveRoot(`${base}/rustc-*/library`), `${base}/rustc-1.63.0/library`);
    assert.equal(resolveRoot(`${base}/rustc-1.63.0/library`), `${base}/rustc-1.63.0/library`);
    assert.equal(resolveRoot(`${base}/go-*/src`), null);
    assert.equal(resolveRoot(`${base}/rustc-notes`), null);
  } finally {
    rmSync(base, { recursive: true, force: true });
  }
});
