// The content script in the page area: hands right-clicks to the window's
// context menu and runs the element picker ("showSelector"), whose click
// sends a selector for the element back to the window ("hideSelector").
(() => {
  if (window.parent === window || window.parent !== window.top) return;
  let picking = false;
  let marked = null;
  const mark = (node) => {
    if (marked) marked.style.outline = marked.dataset.tamselOutline || '';
    marked = node;
    if (node) { node.dataset.tamselOutline = node.style.outline; node.style.outline = '3px solid #e0245e'; }
  };
  const selectorFor = (node) => {
    const parts = [];
    while (node && node.nodeType === 1 && node !== document.body) {
      if (node.id) { parts.unshift(`#${CSS.escape(node.id)}`); break; }
      let part = node.localName;
      const same = [...node.parentElement.children].filter((n) => n.localName === node.localName);
      if (same.length > 1) part += `:nth-of-type(${same.indexOf(node) + 1})`;
      parts.unshift(part);
      node = node.parentElement;
    }
    return parts.join(' > ');
  };
  addEventListener('message', (event) => {
    if (event.source !== window.parent) return;
    if ((event.data || {}).name === 'showSelector') { picking = true; document.documentElement.style.cursor = 'crosshair'; }
  });
  addEventListener('mouseover', (event) => { if (picking) mark(event.target); }, true);
  addEventListener('click', (event) => {
    if (!picking) return;
    event.preventDefault(); event.stopPropagation();
    picking = false; document.documentElement.style.cursor = '';
    const target = event.target; mark(null);
    parent.postMessage({ type: 'hideSelector', selector: selectorFor(target) }, '*');
  }, true);
  addEventListener('contextmenu', (event) => {
    event.preventDefault();
    parent.postMessage({ type: 'contextmenu', x: event.clientX, y: event.clientY }, '*');
  });
})();
