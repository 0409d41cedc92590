document.documentElement.dataset.analytics = "loaded"; fetch("https://www.google-analytics.com/collect?v=1&t=pageview").catch(() => {});
