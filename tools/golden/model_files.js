// Loads a TF.js graph model (model.json and its weight shards) from disk,
// without the network: an IOHandler for tfconv.loadGraphModel.
'use strict';

const fs = require('fs');
const path = require('path');

function fileHandler(jsonPath) {
  return {
    load: async () => {
      const model = JSON.parse(fs.readFileSync(jsonPath, 'utf8'));
      const dir = path.dirname(jsonPath);
      const specs = [];
      const buffers = [];
      for (const group of model.weightsManifest) {
        specs.push(...group.weights);
        for (const p of group.paths) buffers.push(fs.readFileSync(path.join(dir, p)));
      }
      const all = Buffer.concat(buffers);
      return {
        modelTopology: model.modelTopology,
        format: model.format,
        generatedBy: model.generatedBy,
        convertedBy: model.convertedBy,
        signature: model.signature,
        userDefinedMetadata: model.userDefinedMetadata,
        weightSpecs: specs,
        weightData: all.buffer.slice(all.byteOffset, all.byteOffset + all.byteLength),
      };
    },
  };
}

module.exports = { fileHandler };
