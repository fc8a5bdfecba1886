#!/usr/bin/env node
// A client of morvane_cli: runs one command and says what became of each app.
//
//     morvane.mjs [--tool "WORDS"] COMMAND ARGUMENT...
//
// Prints one JSON object and ends as the tool did. --tool is what to run (default: morvane_cli); on a
// simulated phone: --tool "build/morvane_phone run DIR -- build/morvane_cli".

import { spawn } from "node:child_process";
import { realpathSync } from "node:fs";
import { constants } from "node:os";
import { pathToFileURL } from "node:url";

const PREFIX = "[morvane_cli] ";
const RESET = /^RESET_(?:OK|FAIL) ([A-Za-z0-9._-]+)(?:: (.*))?$/;
const DONE = /^(?:BACKUP|RESTORE|REMOVE)_OK ([A-Za-z0-9._-]+)$/;
const FAILED = /^(?:BACKUP|RESTORE|REMOVE)_FAIL(?: ([A-Za-z0-9._-]+))?: (.*)$/;
const APP_FAILED = /^(?:BACKUP|RESTORE)_FAIL (.*): ([^:]*)$/s;
const APP_DONE = /^container (?:backed up|restored): (.*)$/s;
const INCOMPLETE = /^copy incomplete for .*: (\d+) file\/dir could not be copied$/s;

// The result lines of standard output. Lines that are not known are passed over.
function readOutput(outcome, text) {
  let match;
  for (const line of text.split("\n")) {
    if ((match = RESET.exec(line))) addApp(outcome, match[1], match[2]);
    else if ((match = DONE.exec(line))) outcome.backup = match[1];
  }
}

// Standard error: results of the whole without prefix, the log and results of apps with it.
function readErrors(outcome, text) {
  let match;
  for (const line of text.split("\n")) {
    if (!line.startsWith(PREFIX)) {
      if ((match = FAILED.exec(line))) {
        outcome.backup = match[1] ?? null;
        outcome.reason = match[2];
      }
      continue;
    }
    const message = line.slice(PREFIX.length);
    outcome.log.push(message);
    if ((match = APP_DONE.exec(message))) addApp(outcome, match[1]);
    else if ((match = APP_FAILED.exec(message))) addApp(outcome, match[1], match[2]);
    else if ((match = INCOMPLETE.exec(message)) && outcome.apps.length > 0) {
      outcome.apps.at(-1).incomplete = Number(match[1]);
    }
  }
}

function addApp(outcome, app, reason = null) {
  outcome.apps.push({ app, ok: reason === null, reason, incomplete: 0 });
}

// Runs the tool with a list of arguments, no shell between, and reads both streams at once. `status`
// is the exit status; negative: the signal that ended the tool.
export function run(tool, args, timeout = 600_000) {
  return new Promise((resolve, reject) => {
    const child = spawn(tool[0], [...tool.slice(1), ...args], {
      stdio: ["ignore", "pipe", "pipe"],
      timeout,
    });
    const text = { stdout: "", stderr: "" };
    for (const stream of ["stdout", "stderr"]) {
      child[stream].setEncoding("utf8").on("data", (piece) => (text[stream] += piece));
    }
    child.on("error", reject);
    child.on("close", (code, signal) => {
      const status = code ?? -constants.signals[signal];
      const outcome = { ok: false, status, backup: null, reason: null, apps: [], log: [] };
      readOutput(outcome, text.stdout);
      readErrors(outcome, text.stderr);
      if (status === 2) outcome.reason = outcome.log.at(-1) ?? "usage";
      else if (status < 0 && text.stdout === "" && text.stderr === "") {
        outcome.reason = "the system did not let the tool run: check its signature";
      }
      // Whether everything that was asked for was done.
      outcome.ok = status === 0 && outcome.apps.every((app) => app.ok && app.incomplete === 0);
      resolve(outcome);
    });
  });
}

if (process.argv[1] && import.meta.url === pathToFileURL(realpathSync(process.argv[1])).href) {
  let tool = ["morvane_cli"];
  let args = process.argv.slice(2);
  if (args[0] === "--tool" && args.length > 1) {
    tool = args[1].split(" ").filter((word) => word !== "");
    args = args.slice(2);
  }
  const outcome = await run(tool, args);
  console.log(JSON.stringify(outcome));
  process.exitCode = outcome.status >= 0 ? outcome.status : 128 - outcome.status;
}
