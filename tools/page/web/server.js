// What the server tells, and what it is asked for.

const RETRY = 2000;  // ms

export async function ask(what) {
  const answer = await fetch(`/api/v1/${what}`);
  if (!answer.ok) throw new Error(answer.statusText);
  return answer.json();
}

// Hands over each state, once a second, for as long as the page is there.
export function listen(use) {
  const source = new EventSource("/api/v1/events");
  source.onmessage = (message) => use(JSON.parse(message.data));
  // The browser does not try again by itself in all cases.
  source.onerror = () => {
    source.close();
    setTimeout(() => listen(use), RETRY);
  };
}
