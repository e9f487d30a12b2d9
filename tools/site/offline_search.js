// The theme's search runs in a worker, and browsers refuse workers to pages from file://. There, this class takes the
// place of Worker: it runs the same script in a hidden frame and hands messages over. Over http it does nothing.
if (location.protocol === "file:") {
  window.IFrameWorker = class extends EventTarget {
    constructor(url) {
      super();
      this.frame = document.createElement("iframe");
      this.frame.hidden = true;
      document.body.append(this.frame);
      const inner = this.frame.contentWindow;
      inner.document.open();
      inner.postMessage = (data) => this.dispatchEvent(new MessageEvent("message", { data }));
      this.loaded = new Promise((resolve) => (inner.workerLoaded = resolve));
      inner.document.write(`<body><script src="${url}" onload="workerLoaded()"><\/script></body>`);
      inner.document.close();
    }
    postMessage(data) {
      const inner = this.frame.contentWindow;
      this.loaded.then(() => inner.dispatchEvent(new inner.MessageEvent("message", { data })));
    }
    terminate() {
      this.frame.remove();
    }
  };
  window.Worker = window.IFrameWorker;
}
