// Validates an OpenAPI document with an independent schema validator.
//   node openapi_check.mjs <file>    prints {"valid": bool, "errors": [...]}; exit 1 when invalid
import { Validator } from '@seriousme/openapi-schema-validator';

const validator = new Validator();
const result = await validator.validate(process.argv[2]);
console.log(JSON.stringify({ valid: result.valid, version: validator.version, errors: result.errors || [] }));
process.exit(result.valid ? 0 : 1);
