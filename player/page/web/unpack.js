// SPDX-License-Identifier: Apache-2.0
// Unpacks the columns of a page's data.
'use strict';

const data = JSON.parse(document.getElementById('data').textContent);

/** Bytes of base64 text that zlib wrote. */
async function inflate(text) {
  const packed = Uint8Array.from(atob(text), (c) => c.charCodeAt(0));
  const stream = new Blob([packed]).stream().pipeThrough(new DecompressionStream('deflate'));
  return new Uint8Array(await new Response(stream).arrayBuffer());
}

/** The numbers of a column; NaN where a row has none. PageColumn.h describes the bytes. */
async function unpack(column) {
  const bytes = await inflate(column.data);
  const numbers = new Float64Array(column.rows);
  let at = 0, last = 0, step = 0;
  for (let row = 0; row < column.rows; ++row) {
    let code = 0, scale = 1, byte;
    do {
      byte = bytes[at++];
      code += (byte & 127) * scale;
      scale *= 128;
    } while (byte & 128);
    if (code === 0) {
      numbers[row] = NaN;
      continue;
    }
    const zigzag = code - 1;
    const off = zigzag % 2 ? -(zigzag + 1) / 2 : zigzag / 2;
    const number = off + (column.from === 0 ? 0 : column.from === 1 ? last : last + step);
    step = number - last;
    last = number;
    numbers[row] = number;
  }
  return numbers;
}
