// Checks the AsyncAPI document with the AsyncAPI parser: the document's own
// schema and the parser's rule set. Errors and warnings fail the check.
'use strict';
const { Parser, fromFile, DiagnosticSeverity } = require('@asyncapi/parser');

async function main(path) {
  const { document, diagnostics } = await fromFile(new Parser(), path).parse();
  const problems = diagnostics.filter((d) => d.severity <= DiagnosticSeverity.Warning);
  for (const d of diagnostics) {
    const where = `${d.path.join('/')} (line ${d.range.start.line + 1})`;
    console.log(`${DiagnosticSeverity[d.severity]}: ${d.code}: ${d.message} at ${where}`);
  }
  if (!document || problems.length) {
    console.log(`${path}: ${problems.length} problem(s)`);
    process.exit(1);
  }
  console.log(`${path}: AsyncAPI ${document.version()}, ${document.channels().length} channels, `
    + `${document.operations().length} operations, ${document.messages().length} messages: valid`);
}

main(process.argv[2]).catch((error) => { console.error(error); process.exit(1); });
