// The style sheet of the page. The colours, light and dark, are variables; the timeline uses them too.

#pragma once

namespace report {

constexpr char PageStyle[] = R"(
:root { color-scheme: light dark; --page: #f6f7f9; --card: #fff; --text: #1b2430; --quiet: #5b6675; --line: #dde2e8;
  --good: #18794e; --bad: #c62a2f; --warn: #9a5b00; --save: #3b6fd4; --wait: #c9ced6; --transfer: #12a594;
  --restore: #8e4ec6; --whole: #7d8a9a; --pill: #fff; }
@media (prefers-color-scheme: dark) { :root { --page: #11161d; --card: #19202a; --text: #e6eaf0; --quiet: #98a4b3;
  --line: #2c3644; --good: #4cc38a; --bad: #ff6369; --warn: #f1a10d; --save: #6b96f0; --wait: #475262;
  --transfer: #2ebfae; --restore: #bf7af0; --whole: #8592a3; --pill: #11161d; } }
* { box-sizing: border-box; }
html { background: var(--page); }
body { margin: 0; background: var(--page); color: var(--text); font: 15px/1.5 system-ui, sans-serif; }
main { max-width: 1120px; margin: 0 auto; padding: 28px 20px 60px; }
h1 { font-size: 24px; margin: 0; display: flex; gap: 12px; align-items: center; flex-wrap: wrap; }
h2 { font-size: 17px; margin: 0 0 10px; }
summary { font-weight: 600; margin: 10px 0 4px; cursor: pointer; }
p { margin: 4px 0; } .quiet { color: var(--quiet); } .count { color: var(--quiet); font-weight: normal; }
.pill { font-size: 13px; font-weight: 600; padding: 2px 12px; border-radius: 99px; color: var(--pill); background: var(--bad); }
h1 .pill, td .pill { color: var(--pill); } .pill.complete { background: var(--good); } .pill.terminated, .pill.unfinished, .pill.unknown { background: var(--warn); }
.tiles { display: grid; grid-template-columns: repeat(auto-fit, minmax(130px, 1fr)); gap: 12px; margin: 20px 0; }
.tile, section { background: var(--card); border: 1px solid var(--line); border-radius: 10px; }
.tile { padding: 12px 16px; } .tile b { display: block; font-size: 22px; font-variant-numeric: tabular-nums; }
.tile.bad b { color: var(--bad); } .tile.warn b { color: var(--warn); }
section { padding: 16px 20px; margin: 14px 0; overflow-x: auto; } section.bad { border-left: 4px solid var(--bad); }
table { border-collapse: collapse; width: 100%; font-variant-numeric: tabular-nums; }
.totals { display: grid; grid-template-columns: repeat(auto-fit, minmax(260px, 1fr)); gap: 12px 40px; align-items: start; }
th { text-align: left; font-weight: 600; color: var(--quiet); font-size: 13px; }
th, td { padding: 5px 14px 5px 0; border-bottom: 1px solid var(--line); vertical-align: top; }
tr:last-child td { border-bottom: 0; } .number { text-align: right; white-space: nowrap; }
.name { font-family: ui-monospace, monospace; font-size: 13px; overflow-wrap: anywhere; white-space: pre-wrap; }
td.name { min-width: 220px; }
.outcome { color: var(--warn); font-weight: 600; white-space: nowrap; } .failed { color: var(--bad); } ul { margin: 4px 0; padding-left: 20px; }
.legend span { display: inline-block; margin-right: 16px; font-size: 13px; } .legend i { display: inline-block; width: 11px; height: 11px; border-radius: 3px; margin-right: 5px; }
svg { width: 100%; min-width: 640px; display: block; } svg text { fill: var(--quiet); font: 11px system-ui, sans-serif; }
svg .worker { font-size: 13px; font-weight: 600; fill: var(--text); } .tick { stroke: var(--line); }
.save { fill: var(--save); background: var(--save); } .wait { fill: var(--wait); background: var(--wait); }
.transfer { fill: var(--transfer); background: var(--transfer); } .restore { fill: var(--restore); background: var(--restore); }
.whole { fill: var(--whole); background: var(--whole); } rect.whole { stroke: var(--card); stroke-width: .5; }
.missing { fill: var(--bad); background: var(--bad); } .frame { fill: none; stroke: var(--card); stroke-width: .5; }
g:hover .frame, g:hover rect { stroke: var(--text); stroke-width: 1; }
.subtitle { display: flex; flex-wrap: wrap; gap: 0 24px; } .subtitle b { font-weight: 600; }
.lines { font-family: ui-monospace, monospace; font-size: 12px; white-space: pre-wrap; overflow-wrap: anywhere;
  color: var(--quiet); margin: 0 0 10px 16px; }
@media (max-width: 640px) { main { padding: 16px 10px 40px; } section { padding: 12px 14px; }
  .tiles { grid-template-columns: repeat(auto-fit, minmax(104px, 1fr)); gap: 8px; } .tile { padding: 8px 12px; } .tile b { font-size: 17px; white-space: nowrap; }
  table:not(.plain), table:not(.plain) tbody { display: block; } table:not(.plain) tr { display: flex; flex-wrap: wrap; gap: 0 16px;
    padding: 6px 0; border-bottom: 1px solid var(--line); } table:not(.plain) tr:last-child { border-bottom: 0; }
  svg { min-width: 900px; } table:not(.plain) .head { display: none; } table:not(.plain) td { border: 0; padding: 1px 0; } table:not(.plain) td.name, td.reason { width: 100%; }
  td[data-label]:not([data-label=""]):not(:empty)::before { content: attr(data-label) " "; color: var(--quiet); font-size: 12px; } }
)";

} // namespace report
