// Runs the Khronos glTF validator over GLB files and prints one summary line
// per file, then every error and warning it reported:
//   <file>: <n> errors, <n> warnings, <n> infos, <n> hints
//     <severity> <code> <pointer>: <message>
// Usage: node gltf_validate.js <folder holding node_modules> <file>...
// Exit status 0 when every file was read by the validator (whatever it found).
'use strict';
const fs = require('fs');
const path = require('path');

const [modules, ...files] = process.argv.slice(2);
const validator = require(path.join(modules, 'node_modules', 'gltf-validator'));
const severities = ['error', 'warning', 'info', 'hint'];

(async () => {
  for (const file of files) {
    const report = await validator.validateBytes(new Uint8Array(fs.readFileSync(file)), {
      uri: path.basename(file),
      maxIssues: 200,
    });
    const i = report.issues;
    console.log(`${file}: ${i.numErrors} errors, ${i.numWarnings} warnings, ${i.numInfos} infos, ${i.numHints} hints`);
    for (const m of i.messages) {
      if (m.severity <= 1) console.log(`  ${severities[m.severity]} ${m.code} ${m.pointer || ''}: ${m.message}`);
    }
  }
})().catch((e) => {
  console.log(`validator failed: ${e && e.message ? e.message : e}`);
  process.exit(1);
});
