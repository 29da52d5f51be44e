// Draws the page: what is small at once, the traces once that stands there.

function drawSections() {
  const list = document.getElementById('sections');
  for (const each of document.querySelectorAll('main > section')) {
    list.append(element('li', null, element('a', {href: '#' + each.id}, each.querySelector('h2').textContent)));
  }
}

// A section that cannot be drawn, of answers that nobody expected, leaves the others as they are.
function attempt(id, draw) {
  try {
    draw();
  } catch (error) {
    document.getElementById(id)?.append(element('p', {class: 'alarm'}, '! This cannot be shown: ' + error.message));
  }
}

document.addEventListener('DOMContentLoaded', () => {
  const known = answer('facts');
  attempt('facts', () => drawFacts(known));
  attempt('findings', () => drawFindings());
  attempt('changes', () => drawChanges(known));
  attempt('slots', () => drawSlots());
  attempt('memory', () => drawMemory());
  attempt('drives', () => drawDrives());
  attempt('interfaces', () => drawInterfaces());
  attempt('load', () => drawLoad());
  attempt('sources', () => drawSources(known));
  drawSections();
  requestAnimationFrame(() => setTimeout(() => {
    attempt('trace', () => drawTraces());
    performance.mark('drawn');
    document.documentElement.dataset.drawn = 'all';
  }));
});

// On paper there is nothing to unfold.
addEventListener('beforeprint', () => {
  for (const details of document.querySelectorAll('details:not([open])')) {
    details.open = true;
    details.dataset.folded = '';
  }
});
addEventListener('afterprint', () => {
  for (const details of document.querySelectorAll('details[data-folded]')) {
    details.open = false;
    delete details.dataset.folded;
  }
});
