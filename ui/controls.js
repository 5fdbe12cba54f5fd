// The camera's controls: its order, remote recordings and pictures, abort. Each answer (or
// refusal) of the service shows under the buttons.

import * as api from './api.js';

const NUMBERS = ['eventDuration', 'sliceDuration', 'silenceInterval', 'dailyEvents'];

export class Controls {
  constructor(orderForm, triggerForm, answer, onChange) {
    this.orderForm = orderForm;
    this.triggerForm = triggerForm;
    this.answer = answer;
    this.onChange = onChange;
    this.device = null;
    orderForm.addEventListener('submit', (e) => {
      e.preventDefault();
      this.run('order', () => api.setOrder(this.device, this.orderChange()));
    });
    triggerForm.querySelector('#trigger-record').addEventListener('click', () => {
      const duration = Number(triggerForm.elements.duration.value);
      this.run('record', () => api.trigger(this.device, { action: 'record', duration }));
    });
    triggerForm.querySelector('#trigger-pic').addEventListener('click', () => {
      this.run('picture', () => api.trigger(this.device, { action: 'pic' }));
    });
    triggerForm.querySelector('#abort').addEventListener('click', () => {
      this.run('abort', () => api.abortOrder(this.device));
    });
  }

  async load(device) {
    this.device = device;
    this.answer.textContent = '';
    const order = await api.order(device);
    this.orderForm.elements.storeMode.value = order.storeMode;
    for (const name of NUMBERS) {
      this.orderForm.elements[name].value = order[name];
    }
  }

  orderChange() {
    const change = { storeMode: this.orderForm.elements.storeMode.value };
    for (const name of NUMBERS) {
      const text = this.orderForm.elements[name].value;
      if (text !== '') {
        change[name] = Number(text);
      }
    }
    return change;
  }

  async run(what, call) {
    this.answer.className = '';
    this.answer.textContent = `${what}: sending…`;
    try {
      const result = await call();
      this.answer.className = 'ok';
      this.answer.textContent = `${what}: ${JSON.stringify(result)}`;
      this.onChange();
    } catch (e) {
      this.answer.className = 'refused';
      this.answer.textContent = `${what} refused (${e.status || 'no answer'}): ${e.message}`;
    }
  }
}
