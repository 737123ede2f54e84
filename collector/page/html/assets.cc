#include "collector/page/html/assets.h"

namespace quenor::collector {

// Below 48 em a wide table's rows are blocks, whose cells say by themselves what they are.
const char kStyle[] = R"(:root {
  color-scheme: light dark;
  --text: #1a1c1e; --ground: #ffffff; --line: #c9ced4; --quiet: #5a626b;
  --bad: #a40e18; --bad-ground: #fdeaea; --good: #14612c; --link: #0b57a4;
}
@media (prefers-color-scheme: dark) {
  :root {
    --text: #e4e7ea; --ground: #15181b; --line: #3d444c; --quiet: #a2abb5;
    --bad: #ff9a94; --bad-ground: #421a1c; --good: #7fd398; --link: #8ab8f5;
  }
}
* { box-sizing: border-box; }
body {
  margin: 0 auto; padding: 0 1rem 2rem; max-width: 80rem; overflow-wrap: anywhere;
  font: 16px/1.45 system-ui, sans-serif; color: var(--text); background: var(--ground);
}
h1 { font-size: 1.4rem; }
h2 { font-size: 1.15rem; margin-top: 2rem; }
a { color: var(--link); }
table { border-collapse: collapse; width: 100%; margin: 1.2rem 0; }
caption { text-align: left; font-weight: 600; padding-bottom: 0.3rem; }
th, td { text-align: left; padding: 0.3rem 0.8rem 0.3rem 0; border-bottom: 1px solid var(--line); }
th { font-weight: normal; color: var(--quiet); }
td { font-variant-numeric: tabular-nums; vertical-align: top; }
.bad { color: var(--bad); font-weight: 600; }
div.bad, p.bad { background: var(--bad-ground); border-left: 4px solid; padding: 0.5rem 0.8rem; }
div.bad p, div.bad ul { margin: 0.2rem 0; }
.good { color: var(--good); font-weight: 600; }
time, small { color: var(--quiet); font-weight: normal; font-size: 0.9rem; }
label { display: inline-block; width: 12rem; }
input, select, button {
  font: inherit; color: inherit; background: transparent;
  border: 1px solid var(--quiet); border-radius: 4px; padding: 0.25rem 0.5rem; max-width: 100%;
}
option { background: var(--ground); }
input, select { width: 12rem; }
button { cursor: pointer; font-weight: 600; padding: 0.4rem 1rem; }
:focus-visible { outline: 2px solid var(--link); outline-offset: 2px; }
@media (max-width: 48em) {
  .wide thead { display: none; }
  .wide, .wide caption, .wide tbody { display: block; }
  .wide tr { display: block; border-bottom: 1px solid var(--line); padding: 0.3rem 0; }
  .wide td { display: flex; gap: 0.5rem; border: 0; padding: 0.1rem 0; }
  .wide td::before {
    content: attr(data-head); flex: 0 0 7.5rem; color: var(--quiet); font-weight: normal;
  }
  label, input, select { width: 100%; }
}
)";

// Whatever has happened to the server or the way to it: what brings no event in time is given up,
// said to be lost, and opened anew. An event is a time, and the tables from its second line on.
const char kScript[] = R"("use strict";
const patienceMs = 5000;
const time = document.getElementById("time");
const tables = document.getElementById("tables");
const lost = document.getElementById("lost");
let shown = "";
function listen() {
  const events = new EventSource("/events");
  let silence = setTimeout(giveUp, patienceMs);
  function giveUp() {
    lost.hidden = false;
    events.close();
    listen();
  }
  events.onmessage = (event) => {
    clearTimeout(silence);
    silence = setTimeout(giveUp, patienceMs);
    lost.hidden = true;
    const end = event.data.indexOf("\n");
    time.textContent = event.data.slice(0, end);
    if (shown === event.data.slice(end)) return;
    shown = event.data.slice(end);
    tables.innerHTML = shown;
  };
  events.onerror = () => { lost.hidden = false; };
}
listen();
)";

const char kIcon[] =
    "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 16 16\">"
    "<path d=\"M1 12 5 6l3 4 3-8 4 10\" fill=\"none\" stroke=\"#0b57a4\" "
    "stroke-width=\"2\"/></svg>";

}  // namespace quenor::collector
