"use strict";
// Makes the table of files searchable and sortable. Without it the page is all there, in one order.
(() => {
  const table = document.getElementById("files");
  const body = table.tBodies[0];
  const rows = Array.from(body.rows);
  const headings = Array.from(table.tHead.rows[0].cells);
  const search = document.getElementById("search");
  const only = document.getElementById("only");
  const shown = document.getElementById("shown");
  const paths = rows.map((row) => row.cells[0].textContent.toLowerCase());
  const order = new Intl.Collator(undefined, { numeric: true });

  function filter() {
    const wanted = search.value.toLowerCase();
    let count = 0;
    rows.forEach((row, index) => {
      const hidden = !paths[index].includes(wanted) || (only.checked && !row.classList.contains("broken"));
      row.hidden = hidden;
      count += hidden ? 0 : 1;
    });
    shown.textContent = `${count.toLocaleString("en")} of ${rows.length.toLocaleString("en")} files`;
  }

  function sortBy(column) {
    const heading = headings[column];
    const isText = heading.dataset.kind === "text";
    const current = heading.getAttribute("aria-sort");
    const next = current === null ? (isText ? "ascending" : "descending")
      : current === "ascending" ? "descending" : "ascending";
    headings.forEach((other) => other.removeAttribute("aria-sort"));
    heading.setAttribute("aria-sort", next);
    const sign = next === "ascending" ? 1 : -1;
    const keyed = Array.from(body.rows, (row) => {
      const cell = row.cells[column];
      return { row, key: isText ? cell.textContent : Number(cell.dataset.value) };
    });
    keyed.sort((left, right) =>
      sign * (isText ? order.compare(left.key, right.key) : left.key - right.key));
    body.append(...keyed.map((entry) => entry.row));
  }

  headings.forEach((heading, column) => {
    heading.querySelector("button").addEventListener("click", () => sortBy(column));
  });
  search.addEventListener("input", filter);
  only.addEventListener("change", filter);
  filter();
  document.documentElement.classList.add("scripted");
})();
