'use strict';
// Finds the Node headers a build should use and reads what they say about the runtime: its version, its module
// version, and the V8 defines that its build options require of every translation unit that includes v8.h.
//
//   node cmake/node-headers.js [--include-dir DIR] [--cmake OUT.cmake] [--record OUT.json]
//
// Without --include-dir the headers are chosen as node-gyp does (see resolveHeaders). --cmake writes the findings
// as CMake variables; --record writes the build record that the loader compares with the running process.
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { parseArgs } = require('node:util');

/** Parses the text of a .gypi file (a Python literal with comments) into plain values. */
function parseGyp(text) {
  let i = 0;
  const fail = (what) => {
    throw new Error(`gyp file: ${what} at offset ${i}`);
  };
  const skip = () => {
    for (;;) {
      while (i < text.length && /\s/.test(text[i])) ++i;
      if (text[i] !== '#') return;
      while (i < text.length && text[i] !== '\n') ++i;
    }
  };
  const value = () => {
    skip();
    const c = text[i];
    if (c === '{' || c === '[') {
      const close = c === '{' ? '}' : ']';
      const result = c === '{' ? {} : [];
      ++i;
      for (;;) {
        skip();
        if (text[i] === close) {
          ++i;
          return result;
        }
        const item = value();
        if (c === '{') {
          skip();
          if (text[i++] !== ':') fail('expected ":"');
          result[item] = value();
        } else {
          result.push(item);
        }
        skip();
        if (text[i] === ',') ++i;
        else if (text[i] !== close) fail(`expected "," or "${close}"`);
      }
    }
    if (c === "'" || c === '"') {
      let s = '';
      for (++i; text[i] !== c; ++i) {
        if (i >= text.length) fail('unterminated string');
        s += text[i] === '\\' ? text[++i] : text[i];
      }
      ++i;
      skip();
      // Adjacent literals are one string, as in Python.
      return text[i] === "'" || text[i] === '"' ? s + value() : s;
    }
    const m = /^(-?\d+|True|False|None)/.exec(text.slice(i, i + 32));
    if (!m) fail('unexpected text');
    i += m[0].length;
    const constants = { True: true, False: false, None: null };
    return m[0] in constants ? constants[m[0]] : Number(m[0]);
  };
  const result = value();
  skip();
  if (i !== text.length) fail('trailing text');
  return result;
}

/** Evaluates a gyp condition (a Python expression over variables) with the given variables. */
function evalCondition(expr, vars) {
  const tokens = expr.match(/\s*(==|!=|<=|>=|[<>()]|'[^']*'|"[^"]*"|-?\d+|[A-Za-z_][A-Za-z0-9_]*)/g);
  if (!tokens || tokens.join('').replace(/\s/g, '') !== expr.replace(/\s/g, ''))
    throw new Error(`gyp condition not understood: ${expr}`);
  const t = tokens.map((s) => s.trim());
  let p = 0;
  const peek = () => t[p];
  const take = (want) => {
    if (want !== undefined && t[p] !== want) throw new Error(`gyp condition: expected ${want} in: ${expr}`);
    return t[p++];
  };
  const primary = () => {
    const tok = take();
    if (tok === '(') {
      const v = or();
      take(')');
      return v;
    }
    if (/^['"]/.test(tok)) return tok.slice(1, -1);
    if (/^-?\d+$/.test(tok)) return Number(tok);
    if (!(tok in vars)) throw new Error(`gyp condition: unknown variable ${tok} in: ${expr}`);
    return vars[tok];
  };
  const compare = () => {
    const left = primary();
    const op = peek();
    const negatedIn = op === 'not' && t[p + 1] === 'in';
    if (!['==', '!=', '<', '>', '<=', '>=', 'in'].includes(op) && !negatedIn) return left;
    p += negatedIn ? 2 : 1;
    const right = primary();
    switch (negatedIn ? 'not in' : op) {
      // Loose on purpose: some gyp files write a number as a string ('0').
      case '==': return left == right;
      case '!=': return left != right;
      case '<': return left < right;
      case '>': return left > right;
      case '<=': return left <= right;
      case '>=': return left >= right;
      case 'in': return String(right).split(/\s+/).includes(String(left));
      default: return !String(right).split(/\s+/).includes(String(left));
    }
  };
  const not = () => {
    if (peek() === 'not' && t[p + 1] !== 'in') {
      take();
      return !not();
    }
    return compare();
  };
  const and = () => {
    let v = not();
    while (peek() === 'and') {
      take();
      const r = not();
      v = v && r;
    }
    return v;
  };
  const or = () => {
    let v = and();
    while (peek() === 'or') {
      take();
      const r = and();
      v = v || r;
    }
    return v;
  };
  const result = or();
  if (p !== t.length) throw new Error(`gyp condition: trailing tokens in: ${expr}`);
  return Boolean(result);
}

/** The variables of a gyp "variables" block, nested blocks first, with the "%" of defaults removed. */
function gypVariables(block) {
  if (!block) return {};
  const vars = { ...gypVariables(block.variables) };
  for (const [key, value] of Object.entries(block)) {
    if (key !== 'variables') vars[key.replace(/%$/, '')] = value;
  }
  return vars;
}

/** Identifiers that a gyp condition reads. */
const conditionVariables = (expr) =>
  (expr.replace(/'[^']*'|"[^"]*"/g, '').match(/[A-Za-z_][A-Za-z0-9_]*/g) || []).filter(
    (w) => !['and', 'or', 'not', 'in'].includes(w));

/**
 * The V8 defines that common.gypi derives from the runtime's build variables (config.gypi), as node-gyp would
 * add them: every top-level condition of target_defaults that defines a V8_ macro. Returns the defines and the
 * variables those conditions read, with the values they were read with.
 */
function v8Defines(commonGypi, configGypi) {
  const vars = { OS: 'linux', ...gypVariables(commonGypi.variables), ...gypVariables(configGypi.variables) };
  const defines = [];
  const options = {};
  for (const [expr, then = {}, otherwise = {}] of commonGypi.target_defaults?.conditions || []) {
    const v8Only = (list = []) => list.filter((d) => /^V8_/.test(d));
    if (v8Only(then.defines).length === 0 && v8Only(otherwise.defines).length === 0) continue;
    for (const name of conditionVariables(expr)) if (name in vars && name !== 'OS') options[name] = vars[name];
    defines.push(...v8Only((evalCondition(expr, vars) ? then : otherwise).defines));
  }
  return { defines, options };
}

/** Reads a numeric #define from a header. */
function headerDefine(file, name) {
  const all = [...fs.readFileSync(file, 'utf8').matchAll(new RegExp(`^#define ${name} (\\d+)`, 'gm'))];
  if (all.length === 0) throw new Error(`${file} defines no ${name}`);
  return Number(all[all.length - 1][1]);
}

/** What a header directory (one that holds node.h, v8.h, node_version.h, config.gypi, common.gypi) says. */
function readHeaders(includeDir) {
  const file = (name) => path.join(includeDir, name);
  const version = (h, names) => names.map((n) => headerDefine(file(h), n)).join('.');
  const read = (name) => parseGyp(fs.readFileSync(file(name), 'utf8'));
  const { defines, options } = v8Defines(read('common.gypi'), read('config.gypi'));
  return {
    includeDir,
    version: version('node_version.h', ['NODE_MAJOR_VERSION', 'NODE_MINOR_VERSION', 'NODE_PATCH_VERSION']),
    moduleVersion: headerDefine(file('node_version.h'), 'NODE_MODULE_VERSION'),
    v8Version: version('v8-version.h', ['V8_MAJOR_VERSION', 'V8_MINOR_VERSION', 'V8_BUILD_NUMBER', 'V8_PATCH_LEVEL']),
    v8Options: options,
    v8Defines: defines,
  };
}

const headerVersion = (includeDir) => {
  try {
    return readHeaders(includeDir).version;
  } catch {
    return null;
  }
};

/**
 * Chooses the headers as node-gyp does: npm_config_nodedir when set (a directory with include/node); otherwise
 * the headers for npm_config_target (or the running Node's version): those beside the running Node's binary when
 * their version is that one, then node-gyp's header cache for that exact version, then /usr/include/node when its
 * version is that one. Returns { includeDir, how } or throws an Error that says what to set.
 */
function resolveHeaders(env = process.env, execPath = process.execPath, runningVersion = process.versions.node) {
  if (env.npm_config_nodedir) {
    const dir = path.resolve(env.npm_config_nodedir);
    const includeDir = [path.join(dir, 'include', 'node'), path.join(dir, 'src')].find((d) =>
      fs.existsSync(path.join(d, 'node_version.h')));
    if (!includeDir) throw new Error(`npm_config_nodedir=${env.npm_config_nodedir} has no include/node/node_version.h`);
    return { includeDir, how: 'npm_config_nodedir' };
  }
  const target = (env.npm_config_target || runningVersion).replace(/^v/, '');
  const runtime = env.npm_config_runtime || 'node';
  const devDirs = [env.npm_config_devdir, path.join(os.homedir(), '.cache', 'node-gyp'),
    path.join(os.homedir(), `.${runtime}-gyp`)].filter(Boolean);
  const candidates = [
    ...(runtime === 'node' ? [[path.resolve(execPath, '..', '..', 'include', 'node'), 'the running Node']] : []),
    ...devDirs.map((d) => [path.join(d, target, 'include', 'node'), "node-gyp's header cache"]),
    ...(runtime === 'node' ? [['/usr/include/node', 'the system headers']] : []),
  ];
  for (const [includeDir, how] of candidates) {
    if (headerVersion(includeDir) === target) return { includeDir, how };
  }
  throw new Error(`no headers for ${runtime} ${target} found (looked in ${candidates.map((c) => c[0]).join(', ')}): ` +
    'set npm_config_nodedir to a directory whose include/node holds that runtime\'s headers');
}

/** The build record that the loader compares with the running process. */
function buildRecord(headers, env = process.env) {
  const { version, moduleVersion, v8Version, v8Options, v8Defines: defines } = headers;
  return { runtime: env.npm_config_runtime || 'node', version, moduleVersion, v8Version, v8Options, v8Defines: defines };
}

/** The findings as CMake variables. */
function cmakeScript(headers) {
  const q = (s) => `"${String(s).replace(/[\\"$]/g, '\\$&')}"`;
  return [
    `set(ZEL_NODE_INCLUDE_DIR ${q(headers.includeDir)})`,
    `set(ZEL_NODE_VERSION ${q(headers.version)})`,
    `set(ZEL_NODE_MODULE_VERSION ${headers.moduleVersion})`,
    `set(ZEL_V8_VERSION ${q(headers.v8Version)})`,
    `set(ZEL_V8_DEFINES ${headers.v8Defines.map(q).join(' ')})`,
    '',
  ].join('\n');
}

function main() {
  const { values } = parseArgs({ options: { 'include-dir': { type: 'string' }, cmake: { type: 'string' },
    record: { type: 'string' } } });
  const includeDir = values['include-dir'] || resolveHeaders().includeDir;
  const headers = readHeaders(path.resolve(includeDir));
  if (values.cmake) fs.writeFileSync(values.cmake, cmakeScript(headers));
  if (values.record) fs.writeFileSync(values.record, `${JSON.stringify(buildRecord(headers), null, 2)}\n`);
  if (!values.cmake && !values.record) process.stdout.write(`${JSON.stringify(headers, null, 2)}\n`);
}

if (require.main === module) {
  try {
    main();
  } catch (e) {
    process.stderr.write(`zelbridge: ${e.message}\n`);
    process.exit(1);
  }
}

module.exports = { parseGyp, evalCondition, v8Defines, readHeaders, resolveHeaders, buildRecord };
