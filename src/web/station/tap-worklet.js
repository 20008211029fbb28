// Loaded only for the automated browser test (?test): hands what the station plays, after the
// master volume, to the page in blocks, each with the audio clock's frame of its first sample.
const BLOCK = 1024;

class TapProcessor extends AudioWorkletProcessor {
  constructor() {
    super();
    this.block = new Float32Array(BLOCK);
    this.fill = 0;
    this.first = 0;
  }

  process(inputs) {
    const input = inputs[0] && inputs[0][0];
    const length = input ? input.length : 128; // an input with nothing playing has no channel
    for (let i = 0; i < length; i++) {
      if (this.fill === 0) this.first = currentFrame + i;
      this.block[this.fill++] = input ? input[i] : 0;
      if (this.fill === BLOCK) {
        this.port.postMessage({ frame: this.first, samples: this.block }, [this.block.buffer]);
        this.block = new Float32Array(BLOCK);
        this.fill = 0;
      }
    }
    return true;
  }
}

registerProcessor("parlavox-tap", TapProcessor);
