// The look of the page that Html.cpp makes: light, dark, on a phone and on paper.
#pragma once

inline constexpr const char* htmlStyle = R"css(
:root {
  color-scheme: light dark;
  --page: #f6f6f4; --card: #fff; --ink: #1d2024; --soft: #5a606a; --line: #dcdee2; --code: #f3f4f5;
  --good: #136534; --good-back: #e2f3e7; --bad: #a21a10; --bad-back: #fce6e3;
  --worse-back: #f7cfca; --unsure: #745000; --unsure-back: #fdf0cd; --none-back: #eceef0;
}
@media (prefers-color-scheme: dark) {
  :root {
    --page: #16181b; --card: #1e2125; --ink: #e4e6e9; --soft: #a2a9b3; --line: #363b42;
    --code: #17191c; --good: #86d9a2; --good-back: #183323; --bad: #ff9d92; --bad-back: #45201d;
    --worse-back: #632822; --unsure: #f0cb73; --unsure-back: #3d3115; --none-back: #2a2e34;
  }
}
* { box-sizing: border-box; }
html { -webkit-text-size-adjust: 100%; scroll-padding-top: 4rem; }
body {
  margin: 0 auto; padding: 2rem 1.5rem 4rem; max-width: 76rem; background: var(--page);
  color: var(--ink); font: 16px/1.5 system-ui, "Segoe UI", Roboto, "Liberation Sans", sans-serif;
}
h1 { font-size: 1.7rem; line-height: 1.2; margin: 0 0 .25rem; letter-spacing: -.01em; }
h2 { font-size: 1.2rem; line-height: 1.3; margin: 2.5rem 0 .5rem; overflow-wrap: anywhere; }
h3::first-letter { text-transform: uppercase; }
h3 { font-size: .85rem; margin: 1.1rem 0 .35rem; color: var(--soft); }
p { margin: 0 0 .5rem; }
small, .soft { color: var(--soft); font-size: .85rem; }
code, pre, .name { font-family: ui-monospace, "DejaVu Sans Mono", "Liberation Mono", monospace; }
code, .name { font-size: .9em; }
.path { overflow-wrap: anywhere; }
.counts { display: flex; flex-wrap: wrap; gap: .4rem; list-style: none; margin: .8rem 0 0; padding: 0; }
.counts li { padding: .1rem .7rem; border-radius: 1rem; font-size: .9rem; font-weight: 600; }

.passed, .fixed, .same { color: var(--good); background: var(--good-back); }
.failed, .broken { color: var(--bad); background: var(--bad-back); }
.crashed { color: var(--bad); background: var(--worse-back); }
.nothing, .changed { color: var(--unsure); background: var(--unsure-back); }
.notrun, .same { color: var(--soft); background: var(--none-back); }
.counts li:not([class]) { padding-left: 0; font-weight: 400; }
.mark { display: inline-block; width: 1.1em; font-weight: 700; }

main > section:first-child { margin-top: 1.5rem; }
.scroll { overflow-x: auto; border: 1px solid var(--line); border-radius: .5rem; background: var(--card); }
table { border-collapse: separate; border-spacing: 0; font-size: .9rem; line-height: 1.35; }
.scroll > table { width: 100%; }
th, td { padding: .5rem .75rem; text-align: left; vertical-align: top; border-bottom: 1px solid var(--line); }
tbody:last-child tr:last-child > *, tfoot tr > * { border-bottom: 0; }
thead th { font-weight: 600; overflow-wrap: anywhere; vertical-align: bottom; }
th:first-child { position: sticky; left: 0; z-index: 1; background: var(--card); white-space: nowrap; }
tbody th { font-weight: 400; }
.results th:first-child { width: 1%; line-height: 1.5; }
.results td { min-width: 9.5rem; border-left: 1px solid var(--line); }
.results td a { color: inherit; text-decoration: none; display: block; }
.results td a:hover strong, .results td a:focus-visible strong { text-decoration: underline; }
.results td small {
  color: inherit; display: -webkit-box; -webkit-box-orient: vertical; -webkit-line-clamp: 4;
  overflow: hidden; overflow-wrap: anywhere;
}
.numbers td, .numbers th:not(:first-child) { text-align: right; font-variant-numeric: tabular-nums; }

details { background: var(--card); border: 1px solid var(--line); border-radius: .5rem; margin: .4rem 0; }
summary { display: flex; flex-wrap: wrap; gap: .1rem .8rem; align-items: baseline; padding: .5rem .8rem; cursor: pointer; }
summary::-webkit-details-marker { display: none; }
summary::before { content: "\25b8"; color: var(--soft); width: .6rem; }
details[open] > summary::before { content: "\25be"; }
summary .name { min-width: 12.5rem; }
.badge { padding: 0 .6rem; border-radius: 1rem; font-size: .85rem; font-weight: 600; }
.results .badge { display: table; margin-top: .2rem; border: 1px solid; }
summary .detail { overflow-wrap: anywhere; flex: 1 1 14rem; font-size: .9rem; }
summary .cost { margin-left: auto; white-space: nowrap; font-variant-numeric: tabular-nums; }
.body { padding: 0 .8rem .9rem; border-top: 1px solid var(--line); scroll-margin-top: 5rem; }
dl { display: grid; grid-template-columns: max-content 1fr; gap: .1rem 1rem; margin: .8rem 0 0; font-size: .9rem; }
dt { color: var(--soft); }
dd { margin: 0; overflow-wrap: anywhere; }
pre {
  margin: 0; padding: .7rem .8rem; background: var(--code); border: 1px solid var(--line); border-radius: .35rem;
  font-size: .78rem; line-height: 1.45; overflow: auto; max-height: 34rem; tab-size: 8;
}
pre strong, del { color: var(--bad); }
ins { color: var(--good); }
ins, del { text-decoration: none; display: block; }
:focus-visible { outline: 2px solid #3b82f6; outline-offset: 2px; border-radius: .3rem; }

@media (max-width: 40rem) {
  body { padding: 1.2rem .8rem 3rem; font-size: 15px; }
  th, td { padding: .4rem .5rem; }
  .results td { min-width: 6.5rem; }
  .results tr:has(> td:nth-child(3)) small { display: none; }
  th.name { font-size: .78rem; }
  summary .name { min-width: 0; font-weight: 600; }
  summary .detail { flex-basis: 100%; }
  dl { grid-template-columns: 1fr; }
  dd { margin-bottom: .4rem; }
}
@media print {
  :root {
    color-scheme: light;
    --page: #fff; --card: #fff; --ink: #000; --soft: #444; --line: #bbb; --code: #fff;
    --good: #0b4d25; --bad: #8a130a; --unsure: #5c3f00;
    --good-back: #e2f3e7; --bad-back: #fce6e3; --worse-back: #f7cfca; --unsure-back: #fdf0cd; --none-back: #eceef0;
  }
  html { font-size: 9pt; }
  body { max-width: none; padding: 0; font-size: 1rem; -webkit-print-color-adjust: exact; print-color-adjust: exact; }
  .scroll { overflow: visible; }
  th, td { padding: .35rem .45rem; }
  .results td { min-width: 0; }
  .results td small { display: block; }
  .results tr:has(> td:nth-child(5)) small { display: none; }
  th:first-child { position: static; }
  tr, summary { break-inside: avoid; }
  h2, h3 { break-after: avoid; }
  details { border-width: 0 0 1px; border-radius: 0; }
  pre { max-height: none; white-space: pre-wrap; overflow-wrap: anywhere; border: 0; padding: 0; font-size: 7.5pt; }
}
)css";
