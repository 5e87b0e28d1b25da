// Loads GLB files with three.js's GLTFLoader, as a web page would, and prints
// one line per three.js mesh it made:
//   <file> | <mesh name> | <vertex count> | <morph target names, comma-separated> | <material type>
// The names come from three.js's morphTargetDictionary, which it fills from
// mesh.extras.targetNames.
// Usage: node gltf_three.mjs <folder holding node_modules> <file>...
import fs from 'fs';
import path from 'path';
import { pathToFileURL } from 'url';

const [modules, ...files] = process.argv.slice(2);
const loaderPath = path.join(modules, 'node_modules', 'three', 'examples', 'jsm', 'loaders', 'GLTFLoader.js');
const { GLTFLoader } = await import(pathToFileURL(loaderPath).href);
const loader = new GLTFLoader();

for (const file of files) {
  const bytes = fs.readFileSync(file);
  const data = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
  const gltf = await new Promise((resolve, reject) => loader.parse(data, '', resolve, reject));
  gltf.scene.traverse((object) => {
    if (!object.isMesh) return;
    const dictionary = object.morphTargetDictionary || {};
    const names = Object.keys(dictionary).sort((a, b) => dictionary[a] - dictionary[b]);
    console.log([file, object.name, object.geometry.attributes.position.count, names.join(','),
                 object.material.type].join(' | '));
  });
}
