// The sections about the hardware: slots, memory, drives, interfaces and the load. Each draws what one answer says.

// ---- slots

// What is wrong with a slot as the firmware describes it, beside the others; empty for nothing.
function conflictsOf(slot, slots) {
  const conflicts = [];
  if (slot.is_onboard) return conflicts;
  const others = slots.filter((other) => other !== slot && !other.is_onboard);
  if (slot.number !== 0 && others.some((other) => other.number === slot.number))
    conflicts.push('another slot has the same number');
  if (slot.address !== null && others.some((other) => other.address === slot.address))
    conflicts.push('another slot has the same address');
  if (slot.usage === 'Available' && slot.card !== null)
    conflicts.push('the firmware calls it available, but a card is in it');
  return conflicts;
}

// The functions of a slot's card, with what else is known of them: those that stand where the firmware says, and where
// no other slot has the number those that are behind it.
function adaptersIn(slot, slots) {
  const adapters = answer('inventory').data?.adapters ?? [];
  const isAlone = slot.number > 0 && slots.every((other) => other === slot || other.number !== slot.number);
  return adapters.filter(
    (adapter) =>
      adapter.address !== null &&
      (slot.functions.includes(adapter.address) || (isAlone && adapter.slot === slot.number)),
  );
}

function linkOf(name) {
  return answer('net').data?.find((link) => link.name === name) ?? null;
}

// The fullest of the volumes on a drive; null when none tells.
function fullestOn(drive) {
  const used = (answer('inventory').data?.volumes ?? [])
    .filter((volume) => volume.drives.includes(drive.device))
    .map((volume) => percentOf(volume.used_percent))
    .filter((percent) => percent !== null);
  return used.length === 0 ? null : Math.max(...used);
}

const LANES_WIDTH = {x1: 26, x2: 32, x4: 44, x8: 72, x16: 120, x32: 150};

// The slot as a connector, full or dashed, with its ports and drives behind it.
function slotPicture(slot, state, links, drives) {
  const width = LANES_WIDTH[/x\d+/.exec(slot.width ?? slot.type ?? '')?.[0]] ?? 60;
  const shapes = [shape('rect', {class: 'connector', x: 1, y: 1, width, height: 12, rx: 2})];
  if (state !== 'free') shapes.push(shape('rect', {class: 'card', x: 4, y: 4, width: width - 6, height: 6}));
  if (state === 'conflict') shapes.push(shape('text', {class: 'alarm', x: width + 5, y: 12}, '!'));
  let x = 1;
  for (const {link} of links) {
    const mark = {up: 'M2 5l2 3l4 -6', down: 'M2 2l6 6m0 -6l-6 6'}[link?.state] ?? 'M2 5h6';
    shapes.push(
      shape('rect', {class: 'port ' + (link?.state ?? ''), x, y: 18, width: 10, height: 10}),
      shape('path', {class: 'portmark', transform: `translate(${x} 18)`, d: mark}),
    );
    x += 13;
  }
  for (const drive of drives) {
    const used = fullestOn(drive);
    shapes.push(shape('rect', {class: 'drive', x, y: 18, width: 24, height: 10, rx: 2}));
    if (used !== null)
      shapes.push(shape('rect', {class: 'filled', x: x + 1, y: 19, width: (22 * used) / 100, height: 8}));
    x += 27;
  }
  const isWide = Math.max(x, width + 16);
  return picture(
    `Slot ${slot.number}: ${state}, ${plural(links.length, 'interface')}, ${plural(drives.length, 'drive')}`,
    Math.max(isWide, 160),
    30,
    {class: 'slotpicture'},
    shapes,
  );
}

function functionDetails(adapter, heading = 'h4') {
  return element(
    'div',
    {class: 'function'},
    element(heading, null, adapter.address),
    facts([
      ['Is', joined(adapter.vendor, adapter.product) ?? joined(adapter.sub_class ?? adapter.class)],
      ['Card', adapter.subsystem],
      [
        'IDs',
        joined(
          adapter.vendor_id && `${adapter.vendor_id}:${adapter.device_id}`,
          adapter.subvendor_id && `(${adapter.subvendor_id}:${adapter.subdevice_id})`,
        ),
      ],
      ['Driver', joined(adapter.driver, adapter.driver_version)],
      ['Firmware', adapter.firmware],
      ['Revision', adapter.revision],
      ['IRQ', adapter.irq],
      ['MAC', adapter.mac],
      ['WWN', adapter.wwn],
      ['Ports', listed(adapter.ports)],
      ['Memory', listed(adapter.memory)],
    ]),
  );
}

function driveText(drive) {
  return joined(
    drive.device ?? drive.name,
    drive.vendor,
    drive.device && drive.name,
    drive.size_kb && sizeText(drive.size_kb * 1024),
  );
}

function slotArticle(slot, slots) {
  const conflicts = conflictsOf(slot, slots);
  const adapters = adaptersIn(slot, slots);
  const isUsed = slot.card !== null || adapters.length > 0 || slot.usage === 'In use';
  const state = conflicts.length > 0 ? 'conflict' : isUsed ? 'used' : 'free';
  const addresses = adapters.map((adapter) => adapter.address);
  const links = adapters.flatMap((adapter) => adapter.interfaces).map((name) => ({name, link: linkOf(name)}));
  const drives = (answer('inventory').data?.drives ?? []).filter((drive) => addresses.includes(drive.adapter));
  const name = slot.number === 0 ? 'On the board' : `Slot ${slot.number}`;
  return element(
    'article',
    {class: 'slot ' + state, 'data-slot': slot.number, 'data-state': state},
    element('h3', null, name, slot.designation && element('small', null, slot.designation)),
    slotPicture(slot, state, links, drives),
    element(
      'p',
      {class: 'state'},
      element('strong', null, {used: 'in use', free: 'free', conflict: 'conflict'}[state]),
      ' ',
      [
        joined(slot.type, slot.width && !slot.type?.endsWith(slot.width) ? slot.width : null),
        slot.length && `length ${slot.length}`,
      ]
        .filter(Boolean)
        .join(', '),
    ),
    slot.card !== null && element('p', {class: 'cardname'}, slot.card),
    conflicts.map((conflict) => element('p', {class: 'alarm'}, '! ', conflict)),
    links.length + drives.length > 0 &&
      element(
        'ul',
        {class: 'things'},
        links.map(({name: link, link: known}) =>
          element(
            'li',
            null,
            `${link}: `,
            known === null ? 'state not told' : joined(known.state, known.speed_mbit && `${known.speed_mbit} Mbit/s`),
          ),
        ),
        drives.map((drive) => element('li', null, driveText(drive), ' ', fillBar(fullestOn(drive), driveText(drive)))),
      ),
    adapters.length > 0 &&
      element(
        'details',
        null,
        element('summary', null, `Card: ${plural(adapters.length, 'function')}`),
        adapters.map((adapter) => functionDetails(adapter)),
      ),
    element(
      'p',
      {class: 'from'},
      slot.address === null ? 'no address told' : `at ${slot.address}`,
      `, said by ${listed(slot.sources) ?? 'nobody'}`,
    ),
  );
}

function drawSlots() {
  const slots = answer('slots').data ?? [];
  const articles = slots.map((slot) => slotArticle(slot, slots));
  const isState = (state) => articles.filter((article) => article.dataset.state === state).length;
  const conflicts = isState('conflict');
  section(
    'slots',
    reason('slots'),
    slots.length === 0
      ? element('p', {class: 'untold'}, 'No table of the firmware describes a slot.')
      : element(
          'p',
          null,
          `${plural(slots.length, 'place')}: ${isState('used')} in use, ${isState('free')} free`,
          conflicts > 0 && element('strong', {class: 'alarm'}, `, ! ${plural(conflicts, 'conflict')}`),
        ),
    element('div', {class: 'grid'}, articles),
  );
  const adapters = (answer('inventory').data?.adapters ?? []).filter((adapter) => adapter.address !== null);
  if (adapters.length > 0) {
    section(
      'slots',
      element(
        'details',
        null,
        element('summary', null, `All ${plural(adapters.length, 'adapter')} of the PCI buses`),
        element(
          'div',
          {class: 'grid'},
          adapters.map((adapter) => functionDetails(adapter, 'h3')),
        ),
      ),
    );
  }
}

// ---- memory

function memoryField(structure, name) {
  return structure.fields.find((field) => field.name === name)?.value ?? null;
}

function moduleArticle(structure) {
  const size = memoryField(structure, 'Size');
  const isThere = size !== null && !size.startsWith('No module');
  const name = memoryField(structure, 'Locator') ?? structure.handle;
  return element(
    'article',
    {class: 'dimm ' + (isThere ? 'used' : 'free'), 'data-state': isThere ? 'used' : 'free'},
    element('h3', null, name, element('small', null, memoryField(structure, 'Bank Locator') ?? '')),
    picture(
      `${name}: ${isThere ? size : 'empty'}`,
      140,
      26,
      {class: 'dimmpicture'},
      shape('path', {class: 'module', d: 'M1 1h138v18h-64v-4h-6v4h-68z'}),
      isThere
        ? [8, 26, 44, 86, 104, 122].map((x) => shape('rect', {class: 'chip', x, y: 4, width: 12, height: 9}))
        : [],
    ),
    element(
      'p',
      {class: 'state'},
      element('strong', null, isThere ? size : 'empty'),
      ' ',
      isThere
        ? (joined(
            memoryField(structure, 'Type'),
            memoryField(structure, 'Configured Speed') ?? memoryField(structure, 'Speed'),
          ) ?? '')
        : '',
    ),
    isThere &&
      element(
        'p',
        {class: 'from'},
        joined(
          memoryField(structure, 'Manufacturer'),
          memoryField(structure, 'Part Number'),
          memoryField(structure, 'Serial Number') && 'serial ' + memoryField(structure, 'Serial Number'),
        ) ?? '',
      ),
  );
}

function drawMemory() {
  const sockets = (answer('memory').data ?? []).filter((structure) => structure.type === 17);
  const articles = sockets.map(moduleArticle);
  const used = articles.filter((article) => article.dataset.state === 'used').length;
  section(
    'memory',
    reason('memory'),
    sockets.length === 0
      ? element('p', {class: 'untold'}, 'The firmware does not tell of memory modules.')
      : element('p', null, `${plural(sockets.length, 'socket')}: ${used} in use, ${sockets.length - used} empty`),
    element('div', {class: 'grid small'}, articles),
  );
}

// ---- drives and volumes

function volumeItem(volume) {
  return element(
    'li',
    {class: 'volume'},
    element('code', null, volume.mount_point),
    ' ',
    joined(volume.type, volume.size_kb && sizeText(volume.size_kb * 1024)) ?? '',
    ' ',
    fillBar(volume.used_percent, volume.mount_point),
  );
}

function driveItem(drive, volumes) {
  const onDrive = volumes.filter((volume) => volume.drives.includes(drive.device));
  const nodes = drive.partitions.map((partition) => partition.device);
  const list = (found) => found.length > 0 && element('ul', null, found.map(volumeItem));
  return element(
    'li',
    {class: 'drive'},
    element('strong', null, drive.device ?? drive.id ?? 'a drive'),
    ' ',
    joined(
      drive.type,
      drive.bus,
      drive.vendor,
      drive.name,
      drive.size_kb && sizeText(drive.size_kb * 1024),
      drive.serial && 'serial ' + drive.serial,
      drive.revision && 'revision ' + drive.revision,
    ) ?? '',
    element(
      'ul',
      null,
      drive.partitions.map((partition) =>
        element(
          'li',
          {class: 'partition'},
          element('code', null, partition.device),
          ' ',
          partition.size_kb && sizeText(partition.size_kb * 1024),
          list(onDrive.filter((volume) => volume.on.includes(partition.device))),
        ),
      ),
      onDrive.filter((volume) => !volume.on.some((node) => nodes.includes(node))).map(volumeItem),
    ),
  );
}

function slotText(adapter) {
  return adapter.slot > 0 ? `in slot ${adapter.slot}` : null;
}

function drawDrives() {
  const {adapters = [], drives = [], volumes = []} = answer('inventory').data ?? {};
  const homes = [...adapters.filter((adapter) => adapter.address !== null), null];
  const addresses = new Set(adapters.map((adapter) => adapter.address));
  const items = homes.map((adapter) => {
    const attached = drives.filter((drive) =>
      adapter === null ? !addresses.has(drive.adapter) || drive.adapter === null : drive.adapter === adapter.address,
    );
    if (attached.length === 0) return null;
    const title =
      adapter === null
        ? 'Where they are attached is not told'
        : joined(adapter.address, joined(adapter.vendor, adapter.product) ?? adapter.class, slotText(adapter));
    return element(
      'li',
      {class: 'adapter'},
      element('span', null, title),
      element(
        'ul',
        null,
        attached.map((drive) => driveItem(drive, volumes)),
      ),
    );
  });
  const known = new Set(drives.map((drive) => drive.device));
  const loose = volumes.filter((volume) => !volume.drives.some((device) => known.has(device)));
  section(
    'drives',
    reason('inventory'),
    element('p', null, plural(drives.length, 'drive') + ', ' + plural(volumes.length, 'volume')),
    drives.length + loose.length > 0 &&
      element(
        'ul',
        {class: 'tree'},
        items,
        loose.length > 0 &&
          element('li', {class: 'adapter'}, 'On no drive that is shown', element('ul', null, loose.map(volumeItem))),
      ),
  );
}

// ---- network interfaces

// Of a machine that does not tell its links, what its inventory has of them.
function knownLinks() {
  const links = answer('net').data;
  return (
    links ?? (answer('inventory').data?.interfaces ?? []).map((each) => ({...each, pci: each.address, addresses: []}))
  );
}

function linkArticle(link) {
  const counts = (way) => {
    const count = (what) => link[`${way}_${what}`];
    if (count('bytes') === undefined) return null;
    const packets = `${sizeText(count('bytes'))} in ${plural(count('packets'), 'packet')}`;
    return `${packets}, ${plural(count('errors'), 'error')}, ${count('dropped')} dropped`;
  };
  const state = link.state ?? 'state not told';
  return element(
    'article',
    {class: 'link', 'data-link': link.name, 'data-state': state},
    element('h3', null, link.name),
    picture(
      `${link.name}: ${state}`,
      20,
      12,
      {class: 'linkpicture'},
      shape('rect', {class: 'port ' + state, x: 1, y: 1, width: 10, height: 10}),
      shape('path', {
        class: 'portmark',
        transform: 'translate(1 1)',
        d: {up: 'M2 5l2 3l4 -6', down: 'M2 2l6 6m0 -6l-6 6'}[state] ?? 'M2 5h6',
      }),
    ),
    element(
      'p',
      {class: 'state'},
      element('strong', null, state),
      ' ',
      link.speed_mbit ? `${link.speed_mbit} Mbit/s` : '',
    ),
    facts([
      ['MAC', link.mac],
      ['Addresses', listed(link.addresses)],
      ['At', link.pci],
      ['MTU', link.mtu],
      ['Received', counts('rx')],
      ['Sent', counts('tx')],
    ]),
  );
}

function drawInterfaces() {
  const links = knownLinks();
  section(
    'interfaces',
    reason('net'),
    element('p', null, plural(links.length, 'interface')),
    element('div', {class: 'grid'}, links.map(linkArticle)),
  );
}

// ---- load

const PLOT_WIDTH = 200,
  PLOT_HEIGHT = 48;

// One series over time as a line under which it is filled; one value alone as a bar. top: what the height stands for.
function plotArticle(title, values, top, text) {
  const known = values.filter((value) => value !== null && value !== undefined);
  if (known.length === 0) return null;
  const highest = top ?? Math.max(...known, 1);
  const step = PLOT_WIDTH / Math.max(values.length - 1, 1);
  const points = values.map((value, index) => [index * step, PLOT_HEIGHT * (1 - (value ?? 0) / highest)]);
  if (points.length === 1) points.push([PLOT_WIDTH, points[0][1]]);
  const line = points.map((point) => point.map((each) => each.toFixed(1)).join(' ')).join('L');
  const words =
    known.length === 1 ? text(known[0]) : `${text(known.at(-1))} at last, at most ${text(Math.max(...known))}`;
  return element(
    'article',
    {class: 'plot', 'data-samples': values.length},
    element('h3', null, title),
    picture(
      `${title}: ${words}`,
      PLOT_WIDTH,
      PLOT_HEIGHT,
      {class: 'plotpicture', preserveAspectRatio: 'none'},
      shape('path', {class: 'area', d: `M0 ${PLOT_HEIGHT}L${line}L${PLOT_WIDTH} ${PLOT_HEIGHT}Z`}),
      shape('path', {class: 'line', d: `M${line}`}),
    ),
    element('p', null, words),
  );
}

function drawLoad() {
  const lines = answerLines('perf');
  const samples = lines.map((line) => line.data).filter((data) => data);
  if (samples.length === 0) {
    return section(
      'load',
      element('p', {class: 'untold'}, 'Not told: ' + (lines[0]?.error?.message ?? 'no load was captured')),
    );
  }
  const percent = (value) => `${value} %`,
    rate = (value) => sizeText(value) + '/s';
  const names = [...new Set(samples.flatMap((sample) => sample.network.map((each) => each.name)))];
  const network = (name, key) =>
    samples.map((sample) => sample.network.find((each) => each.name === name)?.[key] ?? null);
  section(
    'load',
    element('p', null, `${plural(samples.length, 'sample')} from ${samples[0].time} to ${samples.at(-1).time}`),
    element(
      'div',
      {class: 'grid small'},
      plotArticle(
        'Processors',
        samples.map((sample) => sample.cpu?.used_percent),
        100,
        percent,
      ),
      plotArticle(
        'Memory',
        samples.map((sample) => sample.memory?.physical_percent),
        100,
        percent,
      ),
      plotArticle(
        'Memory and swap',
        samples.map((sample) => sample.memory?.virtual_percent),
        100,
        percent,
      ),
      names.flatMap((name) => [
        plotArticle(`${name} received`, network(name, 'received_bytes_per_s'), null, rate),
        plotArticle(`${name} sent`, network(name, 'sent_bytes_per_s'), null, rate),
      ]),
    ),
  );
}
