// Draws the page: what stands before this script at once, the traces when all of them are read.

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

const machineFacts = answer('facts');
attempt('facts', () => drawFacts(machineFacts));
attempt('findings', () => drawFindings());
attempt('changes', () => drawChanges(machineFacts));
attempt('slots', () => drawSlots());
attempt('memory', () => drawMemory());
attempt('drives', () => drawDrives());
attempt('interfaces', () => drawInterfaces());
attempt('load', () => drawLoad());
attempt('sources', () => drawSources(machineFacts));
drawSections();
document.addEventListener('DOMContentLoaded', () => {
  attempt('trace', () => drawTraces());
  performance.mark('drawn');
  document.documentElement.dataset.drawn = 'all';
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
