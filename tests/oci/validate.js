// Holds Kubernetes objects, a JSON array on standard input, against the schemas that Kubernetes
// publishes, as the package kubernetes-models has them. See scripts/oci.
"use strict";
const fs = require("fs");

// A member that has a type takes none of at least one kind.
const KINDS = [{}, [], "text", 1.5, true];

function isValid(Kind, object) {
    try {
        new Kind(object).validate();
        return true;
    } catch {
        return false;
    }
}

// The schemas let members pass that they do not have: the paths of those, below `part` of `object`.
function unknown(Kind, object, part = object, path = "") {
    let found = [];
    for (const name of Object.keys(part)) {
        const value = part[name];
        const takesAll = KINDS.every(kind => {
            part[name] = kind;
            return isValid(Kind, object);
        });
        part[name] = value;
        if (takesAll) {
            found.push(`${path}/${name}`);
        } else if (value !== null && typeof value === "object") {
            found = found.concat(unknown(Kind, object, value, `${path}/${name}`));
        }
    }
    return found;
}

let isWrong = false;
for (const object of JSON.parse(fs.readFileSync(0, "utf8"))) {
    const Kind = require(`kubernetes-models/${object.apiVersion}`)[object.kind];
    let answer = "held";
    try {
        new Kind(object).validate();
        const names = unknown(Kind, object);
        answer = names.length ? `unknown: ${names.join(" ")}` : answer;
    } catch (error) {
        answer = error.message;
    }
    isWrong = isWrong || answer !== "held";
    console.log(`${object.apiVersion} ${object.kind}: ${answer}`);
}
process.exit(isWrong ? 1 : 0);
