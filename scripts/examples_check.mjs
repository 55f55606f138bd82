// examples_check.mjs KUBERNETES NOMAD: validates each Kubernetes object against the schemas of its API, parses the Nomad
// job, and writes the objects as typed constants to objects.ts and, each with a misspelt key, to misspelt.ts: the
// schemas accept unknown keys, the types do not. Copied by scripts/check-examples to where the packages are.
import { readFileSync, writeFileSync } from "node:fs";
import YAML from "yaml";
import { parse } from "@cdktf/hcl2json";

const [kubernetes, nomad] = process.argv.slice(2);
const constants = { "objects.ts": "", "misspelt.ts": "" };

for (const document of YAML.parseAllDocuments(readFileSync(kubernetes, "utf8"), { version: "1.1" })) {
    const object = document.toJS();
    const { apiVersion, kind } = object;
    const models = await import(`kubernetes-models/${apiVersion}`);
    new models[kind](object).validate();
    console.log(`${kind} ${object.metadata.name}: valid`);
    const constant = (value) => `import { I${kind} } from "kubernetes-models/${apiVersion}";\n` +
        `export const ${kind}Object: I${kind} = ${JSON.stringify(value, null, 1)};\n`;
    constants["objects.ts"] += constant(object);
    constants["misspelt.ts"] += constant({ ...object, metadata: { ...object.metadata, nmae: "" } });
}
for (const [name, text] of Object.entries(constants))
    writeFileSync(name, text);

console.log(`${nomad}: job ${Object.keys((await parse(nomad, readFileSync(nomad, "utf8"))).job)}: parsed`);
