// The independent reading of a GGUF file the tests compare the daemon's
// reader with: prints one JSON object with the header as @huggingface/gguf
// reads it (64-bit numbers as decimal strings).
// usage: node gguf_reference.mjs FILE
import { gguf } from "@huggingface/gguf";

const text = (value) =>
  typeof value === "bigint" ? value.toString()
  : Array.isArray(value) ? value.map(text)
  : value;

const file = process.argv[2];
const { metadata, tensorInfos, tensorDataOffset } = await gguf(file, { allowLocalFile: true });
const plain = {};
for (const [key, value] of Object.entries(metadata)) plain[key] = text(value);
process.stdout.write(JSON.stringify({
  metadata: plain,
  tensor_data_offset: tensorDataOffset.toString(),
  tensors: tensorInfos.map((t) => ({
    name: t.name,
    dims: t.shape.map(text),
    type: t.dtype,
    offset: t.offset.toString(),
  })),
}));
