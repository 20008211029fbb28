// Hands every block of microphone audio to the main thread, which cuts it into 20 ms frames.
// The node is created with one explicit channel, so the browser has already mixed to mono.
class CaptureProcessor extends AudioWorkletProcessor {
  process(inputs) {
    const channel = inputs[0] && inputs[0][0];
    if (channel && channel.length) {
      const copy = channel.slice(); // the engine reuses its buffers after process() returns
      this.port.postMessage(copy, [copy.buffer]);
    }
    return true;
  }
}

registerProcessor("parlavox-capture", CaptureProcessor);
