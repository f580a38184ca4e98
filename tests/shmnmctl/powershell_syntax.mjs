// Checks the syntax of the PowerShell files with a grammar, because no PowerShell is packaged for the build machine:
//     node powershell_syntax.mjs NODE_MODULES
// The grammar accepts less than PowerShell does, so the files keep to what both accept.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import {pathToFileURL} from 'node:url';

const modules = path.resolve(process.argv[2]);
const project = path.resolve(import.meta.dirname ?? path.dirname(new URL(import.meta.url).pathname), '../..');
const {Language, Parser} = await import(pathToFileURL(path.join(modules, 'web-tree-sitter/web-tree-sitter.js')));

await Parser.init();
const parser = new Parser();
parser.setLanguage(await Language.load(path.join(modules, 'tree-sitter-powershell/tree-sitter-powershell.wasm')));

/** The places at which a text is not PowerShell. */
function faults(text) {
    const found = [];
    const look = (node) => {
        if (node.isError || node.isMissing) found.push(`line ${node.startPosition.row + 1}: ${node.text.slice(0, 60)}`);
        node.children.forEach(look);
    };
    look(parser.parse(text).rootNode);
    return found;
}

const files = ['completion/shmnmctl.ps1', 'powershell/Shmnm/Shmnm.psd1', 'powershell/Shmnm/Shmnm.psm1'];
for (const name of files) {
    const text = fs.readFileSync(path.join(project, 'tools/shmnmctl', name), 'utf8');
    assert.deepEqual(faults(text), [], name);
    // The check can fail: each file without one of its last brackets, or with a quote too many.
    for (const spoilt of [text.replace(/[}\])](?=[^}\])]*$)/, ''), `${text}\n$x = '`]) {
        assert.notEqual(faults(spoilt).length, 0, `a fault in ${name} is not found`);
    }
}
console.log(`${files.length} files of PowerShell are well-formed`);
