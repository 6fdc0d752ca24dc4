'use strict';
(() => {
  const all = (selector, top = document) => [...top.querySelectorAll(selector)];
  const make = (name, className) => Object.assign(document.createElement(name), { className });

  // ---- Facts beside the pointer.
  const tip = make('div', '');
  tip.id = 'tip';
  tip.hidden = true;
  document.body.append(tip);
  const show = (text, event) => {
    tip.hidden = !text;
    if (!text) return;
    tip.textContent = text;
    const box = tip.getBoundingClientRect();
    tip.style.left = Math.max(4, Math.min(event.clientX + 14, innerWidth - box.width - 8)) + 'px';
    tip.style.top = (event.clientY + 18 + box.height > innerHeight ? event.clientY - box.height - 10 : event.clientY + 18) + 'px';
  };
  const tables = new Map();
  const span = (index, each, names, word) => {
    if (names.length) return names[index];
    const first = index * each;
    return word + ' ' + first + (each > 1 ? ' to ' + (first + each - 1) : '');
  };
  const cellText = (picture, event) => {
    const id = picture.dataset.heat;
    if (!tables.has(id)) tables.set(id, JSON.parse(document.getElementById(id).textContent));
    const map = tables.get(id);
    const box = picture.querySelector('.none').getBoundingClientRect();
    const column = Math.floor((event.clientX - box.left) / box.width * map.columns);
    const row = Math.floor((event.clientY - box.top) / box.height * map.rows);
    if (row < 0 || column < 0 || row >= map.rows || column >= map.columns) return '';
    const cell = row * map.columns + column;
    const value = part => (part * map.scale).toPrecision(3) + ' ' + map.unit;
    return span(row, map.rowsEach, map.rowNames, map.down) + '\n' +
      span(column, map.columnsEach, map.columnNames, map.across.replace(' →', '')) + '\nmax ' + value(map.max[cell]) +
      (map.rowsEach * map.columnsEach > 1 ? ', mean ' + value(map.mean[cell]) : '');
  };
  document.addEventListener('pointermove', event => {
    const picture = event.target.closest('[data-heat]');
    const marked = event.target.closest('[data-tip]');
    show(picture ? cellText(picture, event) : marked ? marked.dataset.tip : '', event);
  });

  // ---- Tables are sorted by the column that is clicked.
  const valueOf = (row, column) => {
    const cell = row.cells[column];
    const number = parseFloat(cell.dataset.v);
    return isNaN(number) ? cell.textContent.trim() : number;
  };
  const sort = (table, column, head) => {
    const descending = head.getAttribute('aria-sort') !== 'descending';
    all('thead th', table).forEach(each => each.removeAttribute('aria-sort'));
    head.setAttribute('aria-sort', descending ? 'descending' : 'ascending');
    const rows = [...table.tBodies[0].rows].map(row => [valueOf(row, column), row]);
    const order = (a, b) => typeof a === 'number' && typeof b === 'number' ? a - b : String(a).localeCompare(String(b), undefined, { numeric: true });
    rows.sort((a, b) => descending ? order(b[0], a[0]) : order(a[0], b[0]));
    table.tBodies[0].append(...rows.map(row => row[1]));
  };
  all('table.sortable').forEach(table => all('thead th', table).forEach((head, column) => {
    head.classList.add('click');
    head.tabIndex = 0;
    head.addEventListener('click', () => sort(table, column, head));
    head.addEventListener('keydown', event => {
      if (event.key !== 'Enter' && event.key !== ' ') return;
      event.preventDefault();
      sort(table, column, head);
    });
  }));

  // ---- The flame graph: a click makes an event as wide as the page; a search marks events by name.
  all('svg.flame').forEach(picture => {
    const whole = picture.viewBox.baseVal.width;
    const frames = all('.frame', picture).map(group => {
      const box = group.querySelector('rect');
      const text = group.querySelector('text');
      return { group, box, text, x: +box.getAttribute('x'), y: +box.getAttribute('y'), width: +box.getAttribute('width'), name: group.dataset.tip.split('\n')[0] };
    });
    const cut = (name, count) => name.length <= count ? name : count < 3 ? '' : name.slice(0, (count - 1) / 2) + '…' + name.slice(name.length - (count - 1) / 2);
    const zoom = (from, width, depth) => frames.forEach(frame => {
      const above = frame.y < depth && frame.x <= from + 0.6 && frame.x + frame.width >= from + width - 0.6;
      const x = above ? 0 : (frame.x - from) / width * whole;
      const length = above ? whole : frame.width / width * whole;
      const seen = above || (frame.y >= depth && x > -1 && x < whole - 0.1);
      frame.group.style.display = seen ? '' : 'none';
      frame.group.classList.toggle('dim', above && depth > 0);
      frame.box.setAttribute('x', x);
      frame.box.setAttribute('width', Math.max(0.5, length));
      frame.text.setAttribute('x', x + 4);
      frame.text.textContent = cut((frame.group.classList.contains('out') ? '▲ ' : '') + frame.name, Math.floor((length - 8) / 7.3));
    });
    frames.forEach(frame => frame.group.addEventListener('click', () => zoom(frame.x, frame.width, frame.y)));
    const tools = make('div', 'tools');
    const field = make('input', '');
    field.type = 'search';
    field.placeholder = 'search events (regular expression)';
    field.setAttribute('aria-label', 'search events');
    const button = make('button', '');
    button.type = 'button';
    button.textContent = 'whole graph';
    const found = make('span', '');
    tools.append(field, button, found);
    picture.parentElement.before(tools);
    button.addEventListener('click', () => zoom(0, whole, 0));
    field.addEventListener('input', () => {
      let pattern = null;
      try { pattern = field.value ? new RegExp(field.value, 'i') : null; } catch { found.textContent = 'no regular expression'; return; }
      let share = 0;
      const counted = [];
      frames.forEach(frame => {
        const hit = pattern !== null && pattern.test(frame.name);
        frame.group.classList.toggle('found', hit);
        const inside = counted.some(other => frame.y > other.y && frame.x >= other.x - 0.6 && frame.x + frame.width <= other.x + other.width + 0.6);
        if (!hit || inside) return;
        counted.push(frame);
        share += frame.width / whole;
      });
      found.textContent = pattern ? 'matched: ' + (100 * share).toFixed(1) + ' %' : '';
    });
  });
})();
